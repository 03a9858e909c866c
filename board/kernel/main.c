// SPDX-License-Identifier: GPL-2.0
/*
 * A board without hardware: an SPI controller with a spidev child, an I2C
 * adapter and a GPIO chip. What reaches them goes through one character device
 * to a program, which plays the chip.
 *
 * For tests only. The devices fail and delay as real controllers do, chosen by
 * module parameters.
 */
#include <linux/delay.h>
#include <linux/module.h>

#include "board.h"

static uint answer_delay_ms;
module_param(answer_delay_ms, uint, 0644);
MODULE_PARM_DESC(answer_delay_ms, "each SPI and I2C transfer hangs so long in the driver");

static struct device *parent;

void board_exchange_delay(void)
{
	if (answer_delay_ms)
		msleep(answer_delay_ms);
}

static int board_add_devices(void)
{
	int result = board_gpio_add(parent);

	if (result)
		return result;
	result = board_i2c_add(parent);
	if (result)
		goto remove_gpio;
	result = board_spi_add(parent);
	if (result)
		goto remove_i2c;
	return 0;

remove_i2c:
	board_i2c_remove();
remove_gpio:
	board_gpio_remove();
	return result;
}

static int __init board_start(void)
{
	int result = board_exchange_add();

	if (result)
		return result;
	parent = root_device_register("tavor-board");
	if (IS_ERR(parent)) {
		result = PTR_ERR(parent);
		goto remove_exchange;
	}
	result = board_add_devices();
	if (!result)
		return 0;
	root_device_unregister(parent);
remove_exchange:
	board_exchange_remove();
	return result;
}

static void __exit board_end(void)
{
	board_spi_remove();
	board_i2c_remove();
	board_gpio_remove();
	root_device_unregister(parent);
	board_exchange_remove();
}

module_init(board_start);
module_exit(board_end);
MODULE_DESCRIPTION("Virtual board: SPI, I2C and GPIO served by a program");
MODULE_LICENSE("GPL");
