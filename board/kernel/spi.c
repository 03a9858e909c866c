// SPDX-License-Identifier: GPL-2.0
/* The SPI controller, and its child for spidev. */
#include <linux/delay.h>
#include <linux/module.h>
#include <linux/spi/spi.h>

#include "board.h"

static int spi_bus = 1;
module_param(spi_bus, int, 0444);
MODULE_PARM_DESC(spi_bus, "number of the SPI bus");

static ushort spi_cs;
module_param(spi_cs, ushort, 0444);
MODULE_PARM_DESC(spi_cs, "chip select of the spidev child");

static uint spi_mode_bits = SPI_CPHA | SPI_CPOL | SPI_CS_HIGH | SPI_LSB_FIRST;
module_param(spi_mode_bits, uint, 0444);
MODULE_PARM_DESC(spi_mode_bits, "mode bits that the SPI controller supports");

static uint spi_max_transfer;
module_param(spi_max_transfer, uint, 0644);
MODULE_PARM_DESC(spi_max_transfer, "longest SPI transfer in bytes, 0: any");

static ushort spi_max_errno = EINVAL;
module_param(spi_max_errno, ushort, 0644);
MODULE_PARM_DESC(spi_max_errno, "what a longer one gets; 90 (EMSGSIZE) is what spidev's bufsiz gives");

static bool spi_wire_time;
module_param(spi_wire_time, bool, 0644);
MODULE_PARM_DESC(spi_wire_time, "an SPI transfer takes as long as its bits on the wire");

static struct spi_controller *controller;

static u32 message_gather(const struct spi_message *message, u8 *data)
{
	struct spi_transfer *part;
	u32 total = 0;

	list_for_each_entry(part, &message->transfers, transfer_list) {
		if (part->len > TAVOR_BOARD_DATA_MAX - total)
			return U32_MAX;
		if (part->tx_buf)
			memcpy(data + total, part->tx_buf, part->len);
		else
			memset(data + total, 0, part->len);
		total += part->len;
	}
	return total;
}

static void message_scatter(const struct spi_message *message, const u8 *next)
{
	struct spi_transfer *part;

	list_for_each_entry(part, &message->transfers, transfer_list) {
		if (part->rx_buf)
			memcpy(part->rx_buf, next, part->len);
		next += part->len;
	}
}

static bool message_fits(const struct spi_message *message)
{
	const struct spi_transfer *part;
	u32 limit = spi_max_transfer;

	list_for_each_entry(part, &message->transfers, transfer_list)
		if (limit && part->len > limit)
			return false;
	return true;
}

static void wait_for_wire(const struct spi_message *message)
{
	const struct spi_transfer *part;
	u64 us = 0;

	if (spi_wire_time)
		list_for_each_entry(part, &message->transfers, transfer_list)
			us += DIV_ROUND_UP_ULL((u64)part->len * BITS_PER_BYTE * USEC_PER_SEC,
					       part->speed_hz);
	if (us)
		fsleep(us);
	board_exchange_delay();
}

/* The chip select stays asserted over all transfers of a message; cs_change is not modelled. */
static int message_exchange(struct spi_message *message)
{
	u8 *data = board_exchange_begin();
	const u32 total = message_gather(message, data);
	const struct tavor_board_request request = {
		.kind = TAVOR_BOARD_SPI,
		.length = total,
		.wanted = total,
		.mode = message->spi->mode,
	};
	int status = total == U32_MAX ? -EMSGSIZE : board_exchange_ask(&request);

	if (!status) {
		message_scatter(message, data);
		message->actual_length = total;
	}
	board_exchange_end();
	return status;
}

static int transfer_message(struct spi_controller *bus, struct spi_message *message)
{
	message->status = -spi_max_errno;
	if (message_fits(message)) {
		wait_for_wire(message);
		message->status = message_exchange(message);
	}
	spi_finalize_current_message(bus);
	return 0;
}

int board_spi_add(struct device *parent)
{
	struct spi_board_info child = {
		.modalias = "dh2228fv",	/* of those that spidev binds; "spidev" it refuses */
		.max_speed_hz = 50000000,
		.bus_num = spi_bus,
		.chip_select = spi_cs,
	};
	int result;

	controller = spi_alloc_master(parent, 0);
	if (!controller)
		return -ENOMEM;
	controller->bus_num = spi_bus;
	controller->num_chipselect = spi_cs + 1;
	controller->mode_bits = spi_mode_bits;
	controller->bits_per_word_mask = SPI_BPW_MASK(8);
	controller->transfer_one_message = transfer_message;
	result = spi_register_controller(controller);
	if (result) {
		spi_controller_put(controller);
		return result;
	}
	if (!spi_new_device(controller, &child)) {
		spi_unregister_controller(controller);
		return -ENODEV;
	}
	return 0;
}

void board_spi_remove(void)
{
	spi_unregister_controller(controller);
}
