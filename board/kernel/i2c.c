// SPDX-License-Identifier: GPL-2.0
/* The I2C adapter. */
#include <linux/i2c.h>
#include <linux/module.h>

#include "board.h"

static int i2c_bus = 1;
module_param(i2c_bus, int, 0444);
MODULE_PARM_DESC(i2c_bus, "number of the I2C bus");

static ushort i2c_busy;
module_param(i2c_busy, ushort, 0444);
MODULE_PARM_DESC(i2c_busy, "I2C address that a driver owns, 0: none");

static struct i2c_adapter adapter;
static struct i2c_client *owner;	/* of the busy address */

static int message_exchange(struct i2c_msg *message, u8 *data)
{
	const bool reads = message->flags & I2C_M_RD;
	const struct tavor_board_request request = {
		.kind = reads ? TAVOR_BOARD_I2C_READ : TAVOR_BOARD_I2C_WRITE,
		.length = reads ? 0 : message->len,
		.wanted = reads ? message->len : 0,
		.address = message->addr,
	};
	int status;

	if (!reads)
		memcpy(data, message->buf, message->len);
	status = board_exchange_ask(&request);
	if (!status && reads)
		memcpy(message->buf, data, message->len);
	return status;
}

static int transfer(struct i2c_adapter *bus, struct i2c_msg *messages, int count)
{
	u8 *data;
	int done = 0;
	int status = 0;

	board_exchange_delay();
	data = board_exchange_begin();
	while (done < count && !status) {
		status = message_exchange(&messages[done], data);
		done += status ? 0 : 1;
	}
	board_exchange_end();
	return status ? status : done;
}

static u32 functionality(struct i2c_adapter *bus)
{
	return I2C_FUNC_I2C | (I2C_FUNC_SMBUS_EMUL & ~I2C_FUNC_SMBUS_QUICK);
}

static const struct i2c_algorithm algorithm = {
	.master_xfer = transfer,
	.functionality = functionality,
};

/* As most adapters: no message without a byte. */
static const struct i2c_adapter_quirks quirks = {
	.flags = I2C_AQ_NO_ZERO_LEN,
};

int board_i2c_add(struct device *parent)
{
	int result;

	adapter.owner = THIS_MODULE;
	adapter.nr = i2c_bus;
	adapter.algo = &algorithm;
	adapter.quirks = &quirks;
	adapter.dev.parent = parent;
	strscpy(adapter.name, "tavor-board", sizeof(adapter.name));
	result = i2c_add_numbered_adapter(&adapter);
	if (result || !i2c_busy)
		return result;
	owner = i2c_new_dummy_device(&adapter, i2c_busy);
	if (IS_ERR(owner)) {
		i2c_del_adapter(&adapter);
		return PTR_ERR(owner);
	}
	return 0;
}

void board_i2c_remove(void)
{
	i2c_unregister_device(owner);
	i2c_del_adapter(&adapter);
}
