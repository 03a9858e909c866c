/* SPDX-License-Identifier: GPL-2.0 WITH Linux-syscall-note */
/*
 * What the module and the program behind /dev/tavor-board say to each other.
 *
 * The program reads one request a read() and answers it with one write(). Both
 * are a head and the bytes that its length tells, in the byte order of the
 * machine. There is one request at a time.
 */
#ifndef TAVOR_BOARD_KERNEL_H
#define TAVOR_BOARD_KERNEL_H

#include <linux/types.h>

/* Name of the character device, in /dev and in sysfs. */
#define TAVOR_BOARD_DEVICE "tavor-board"

/* Most bytes after a head: what spidev may be told to take at once. */
#define TAVOR_BOARD_DATA_MAX 65536

/* Lines of the GPIO chip: one bit each in the words below. */
#define TAVOR_BOARD_LINES 32

enum tavor_board_kind {
	/*
	 * All transfers of one SPI message, one after the other: what goes
	 * out, zeros where a transfer sends nothing. The answer has as many
	 * bytes.
	 */
	TAVOR_BOARD_SPI = 1,
	TAVOR_BOARD_I2C_WRITE = 2,	/* one I2C message to the address */
	TAVOR_BOARD_I2C_READ = 3,	/* the answer has the wanted bytes */
	TAVOR_BOARD_LINES_SET = 4,	/* the state of all GPIO lines */
};

struct tavor_board_request {
	__u32 number;	/* of the request, which the answer repeats */
	__u32 kind;
	__u32 length;	/* bytes after this head */
	__u32 wanted;	/* bytes after the answer's head */
	__u32 address;	/* I2C address; first line's number in sysfs */
	__u32 mode;	/* SPI mode bits, as in linux/spi/spi.h */
	__u32 levels;	/* GPIO: the lines that are high */
	__u32 outputs;	/* GPIO: the lines that are driven */
};

struct tavor_board_answer {
	__u32 number;
	__s32 status;	/* 0, or a negative errno that the caller gets */
	__u32 length;	/* bytes after this head, 0 when status is not */
};

#endif
