/* SPDX-License-Identifier: GPL-2.0 */
/* What the module's files share. */
#ifndef BOARD_H
#define BOARD_H

#include <linux/device.h>

#include "tavor_board.h"

int board_exchange_add(void);
void board_exchange_remove(void);

/*
 * One exchange with the program, between begin and end: begin returns the
 * buffer of TAVOR_BOARD_DATA_MAX bytes for the request's data and then the
 * answer's. ask returns the answer's status, -EIO without a program.
 */
u8 *board_exchange_begin(void);
int board_exchange_ask(const struct tavor_board_request *request);
void board_exchange_end(void);

/* The same for the state of the lines, which a later program learns first. */
void board_exchange_lines(const struct tavor_board_request *lines);

/* Holds a transfer up in the driver, for as long as a test asks. */
void board_exchange_delay(void);

int board_gpio_add(struct device *parent);
void board_gpio_remove(void);
int board_i2c_add(struct device *parent);
void board_i2c_remove(void);
int board_spi_add(struct device *parent);
void board_spi_remove(void);

#endif
