// SPDX-License-Identifier: GPL-2.0
/* The GPIO chip, with numbers in sysfs. */
#include <linux/gpio/consumer.h>
#include <linux/gpio/driver.h>
#include <linux/gpio/machine.h>
#include <linux/irq.h>
#include <linux/module.h>

#include "board.h"

static int gpio_base;
module_param(gpio_base, int, 0444);
MODULE_PARM_DESC(gpio_base, "number of the first GPIO line in sysfs");

static int gpio_busy = -1;
module_param(gpio_busy, int, 0444);
MODULE_PARM_DESC(gpio_busy, "GPIO line, counted from the base, that a driver owns, -1: none");

static bool gpio_output_only;
module_param(gpio_output_only, bool, 0444);
MODULE_PARM_DESC(gpio_output_only, "the GPIO lines have no inputs: sysfs shows no direction");

static bool gpio_edge = true;
module_param(gpio_edge, bool, 0444);
MODULE_PARM_DESC(gpio_edge, "the GPIO lines have interrupts: sysfs shows edge");

static struct gpio_chip chip;
static struct gpio_desc *owned;	/* the busy line */
static int irq_base;
static u32 levels;
static u32 outputs;

/* Returns when the program knows; without one the state waits for the next. */
static void line_change(unsigned int offset, bool output, bool level)
{
	struct tavor_board_request lines = {
		.kind = TAVOR_BOARD_LINES_SET,
		.address = gpio_base,
	};

	board_exchange_begin();
	lines.outputs = output ? outputs | BIT(offset) : outputs & ~BIT(offset);
	lines.levels = level ? levels | BIT(offset) : levels & ~BIT(offset);
	if (levels != lines.levels || outputs != lines.outputs) {
		outputs = lines.outputs;
		levels = lines.levels;
		board_exchange_lines(&lines);
	}
	board_exchange_end();
}

static int line_direction(struct gpio_chip *gpio, unsigned int offset)
{
	return outputs & BIT(offset) ? GPIO_LINE_DIRECTION_OUT : GPIO_LINE_DIRECTION_IN;
}

static int line_input(struct gpio_chip *gpio, unsigned int offset)
{
	line_change(offset, false, false);
	return 0;
}

static int line_output(struct gpio_chip *gpio, unsigned int offset, int value)
{
	line_change(offset, true, value);
	return 0;
}

static int line_get(struct gpio_chip *gpio, unsigned int offset)
{
	return levels & BIT(offset) ? 1 : 0;
}

static void line_set(struct gpio_chip *gpio, unsigned int offset, int value)
{
	line_change(offset, true, value);
}

static int line_irq(struct gpio_chip *gpio, unsigned int offset)
{
	return irq_base + offset;
}

/* Interrupts that never come: enough for sysfs to offer edge. */
static int add_irqs(void)
{
	int i;

	irq_base = irq_alloc_descs(-1, 0, TAVOR_BOARD_LINES, NUMA_NO_NODE);
	if (irq_base < 0)
		return irq_base;
	for (i = 0; i < TAVOR_BOARD_LINES; i++) {
		irq_set_chip_and_handler(irq_base + i, &dummy_irq_chip, handle_simple_irq);
		irq_modify_status(irq_base + i, IRQ_NOREQUEST, IRQ_NOPROBE);
	}
	chip.to_irq = line_irq;
	return 0;
}

int board_gpio_add(struct device *parent)
{
	int result = gpio_edge ? add_irqs() : 0;

	if (result)
		return result;
	chip.label = "tavor-board";
	chip.parent = parent;
	chip.owner = THIS_MODULE;
	chip.base = gpio_base;
	chip.ngpio = TAVOR_BOARD_LINES;
	chip.can_sleep = true;
	chip.get_direction = line_direction;
	if (!gpio_output_only)
		chip.direction_input = line_input;
	chip.direction_output = line_output;
	chip.get = line_get;
	chip.set = line_set;
	outputs = gpio_output_only ? U32_MAX : 0;
	result = gpiochip_add_data(&chip, NULL);
	if (result)
		goto free_irqs;
	if (gpio_busy >= 0) {
		owned = gpiochip_request_own_desc(&chip, gpio_busy, "tavor-board",
						  GPIO_ACTIVE_HIGH, GPIOD_ASIS);
		if (IS_ERR(owned)) {
			result = PTR_ERR(owned);
			gpiochip_remove(&chip);
			goto free_irqs;
		}
	}
	return 0;

free_irqs:
	if (gpio_edge)
		irq_free_descs(irq_base, TAVOR_BOARD_LINES);
	return result;
}

void board_gpio_remove(void)
{
	if (owned)
		gpiochip_free_own_desc(owned);
	gpiochip_remove(&chip);
	if (gpio_edge)
		irq_free_descs(irq_base, TAVOR_BOARD_LINES);
}
