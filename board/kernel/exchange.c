// SPDX-License-Identifier: GPL-2.0
/*
 * The character device: callers of the SPI, I2C and GPIO devices on one side,
 * the program that plays the chip on the other. No caller waits without end.
 */
#include <linux/jiffies.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/mutex.h>
#include <linux/poll.h>
#include <linux/slab.h>
#include <linux/uaccess.h>
#include <linux/wait.h>

#include "board.h"

static uint answer_limit_ms = 10000;
module_param(answer_limit_ms, uint, 0644);
MODULE_PARM_DESC(answer_limit_ms, "a transfer that the program has not answered by then gets EIO");

enum stage { STAGE_IDLE, STAGE_ASKED, STAGE_TAKEN, STAGE_ANSWERED };

static struct {
	/* One exchange at a time; guards data while nothing is asked. */
	struct mutex exchange_lock;

	/* Guards what follows; held for short only. */
	struct mutex lock;
	wait_queue_head_t asked;	/* the program sleeps here */
	wait_queue_head_t answered;	/* the caller sleeps here */
	enum stage stage;
	bool served;			/* a program has the device open */
	bool lines_untold;		/* to the program that has just opened it */
	struct tavor_board_request request;
	s32 status;
	u8 *data;			/* after the request, then after the answer */
	struct tavor_board_request lines;	/* for the next program */
} board = {
	.lines.kind = TAVOR_BOARD_LINES_SET,
};

u8 *board_exchange_begin(void)
{
	mutex_lock(&board.exchange_lock);
	return board.data;
}

void board_exchange_end(void)
{
	mutex_unlock(&board.exchange_lock);
}

int board_exchange_ask(const struct tavor_board_request *request)
{
	const u32 number = board.request.number + 1;
	int status;

	mutex_lock(&board.lock);
	if (!board.served) {
		mutex_unlock(&board.lock);
		return -EIO;
	}
	board.request = *request;
	board.request.number = number ? number : 1;
	board.status = -EIO;
	WRITE_ONCE(board.stage, STAGE_ASKED);
	mutex_unlock(&board.lock);
	wake_up(&board.asked);

	/*
	 * Not to be interrupted, as in a driver that waits for its hardware.
	 * The end of the program wakes it up, and the limit is for a program
	 * that lives and doesn't answer.
	 */
	wait_event_timeout(board.answered, READ_ONCE(board.stage) == STAGE_ANSWERED,
			   msecs_to_jiffies(answer_limit_ms));
	mutex_lock(&board.lock);
	status = board.stage == STAGE_ANSWERED ? board.status : -EIO;
	WRITE_ONCE(board.stage, STAGE_IDLE);
	mutex_unlock(&board.lock);
	return status;
}

static int board_open(struct inode *inode, struct file *file)
{
	bool busy;

	mutex_lock(&board.lock);
	busy = board.served;
	board.served = true;
	board.lines_untold |= !busy;
	mutex_unlock(&board.lock);
	return busy ? -EBUSY : stream_open(inode, file);
}

/* The program is gone: whoever waits for its answer gets EIO. */
static int board_release(struct inode *inode, struct file *file)
{
	mutex_lock(&board.lock);
	board.served = false;
	if (board.stage == STAGE_ASKED || board.stage == STAGE_TAKEN) {
		board.status = -EIO;
		WRITE_ONCE(board.stage, STAGE_ANSWERED);
	}
	mutex_unlock(&board.lock);
	wake_up(&board.answered);
	return 0;
}

static bool has_request(void)
{
	return READ_ONCE(board.stage) == STAGE_ASKED || READ_ONCE(board.lines_untold);
}

static ssize_t take_request(char __user *buffer, size_t count)
{
	struct tavor_board_request request = board.request;
	size_t size;

	if (board.lines_untold)
		request = board.lines;
	else if (board.stage != STAGE_ASKED)
		return -EAGAIN;
	size = sizeof(request) + request.length;
	if (count < size)
		return -EMSGSIZE;
	if (copy_to_user(buffer, &request, sizeof(request)) ||
	    copy_to_user(buffer + sizeof(request), board.data, request.length))
		return -EFAULT;
	if (board.lines_untold)
		board.lines_untold = false;
	else
		WRITE_ONCE(board.stage, STAGE_TAKEN);
	return size;
}

static ssize_t board_read(struct file *file, char __user *buffer, size_t count, loff_t *position)
{
	ssize_t result;

	do {
		if (!(file->f_flags & O_NONBLOCK) &&
		    wait_event_interruptible(board.asked, has_request()))
			return -ERESTARTSYS;
		mutex_lock(&board.lock);
		result = take_request(buffer, count);
		mutex_unlock(&board.lock);
	} while (result == -EAGAIN && !(file->f_flags & O_NONBLOCK));
	return result;
}

static int take_answer(const struct tavor_board_answer *answer, const char __user *data)
{
	if (board.stage != STAGE_TAKEN || answer->number != board.request.number)
		return -ESTALE;	/* the limit has passed */
	if (answer->status > 0 || answer->status < -MAX_ERRNO ||
	    answer->length != (answer->status ? 0 : board.request.wanted))
		return -EINVAL;
	if (copy_from_user(board.data, data, answer->length))
		return -EFAULT;
	board.status = answer->status;
	WRITE_ONCE(board.stage, STAGE_ANSWERED);
	return 0;
}

static ssize_t board_write(struct file *file, const char __user *buffer, size_t count,
			   loff_t *position)
{
	struct tavor_board_answer answer;
	int result;

	if (count < sizeof(answer))
		return -EINVAL;
	if (copy_from_user(&answer, buffer, sizeof(answer)))
		return -EFAULT;
	if (count - sizeof(answer) != answer.length || answer.length > TAVOR_BOARD_DATA_MAX)
		return -EINVAL;
	mutex_lock(&board.lock);
	result = take_answer(&answer, buffer + sizeof(answer));
	mutex_unlock(&board.lock);
	if (result)
		return result;
	wake_up(&board.answered);
	return count;
}

static __poll_t board_poll(struct file *file, poll_table *table)
{
	poll_wait(file, &board.asked, table);
	return EPOLLOUT | EPOLLWRNORM | (has_request() ? EPOLLIN | EPOLLRDNORM : 0);
}

static const struct file_operations exchange_operations = {
	.owner = THIS_MODULE,
	.open = board_open,
	.release = board_release,
	.read = board_read,
	.write = board_write,
	.poll = board_poll,
};

static struct miscdevice exchange_device = {
	.minor = MISC_DYNAMIC_MINOR,
	.name = TAVOR_BOARD_DEVICE,
	.fops = &exchange_operations,
	.mode = 0600,
};

void board_exchange_lines(const struct tavor_board_request *lines)
{
	mutex_lock(&board.lock);
	board.lines = *lines;
	mutex_unlock(&board.lock);
	board_exchange_ask(lines);
}

int board_exchange_add(void)
{
	int result;

	mutex_init(&board.exchange_lock);
	mutex_init(&board.lock);
	init_waitqueue_head(&board.asked);
	init_waitqueue_head(&board.answered);
	board.data = kvzalloc(TAVOR_BOARD_DATA_MAX, GFP_KERNEL);
	if (!board.data)
		return -ENOMEM;
	result = misc_register(&exchange_device);
	if (result)
		kvfree(board.data);
	return result;
}

void board_exchange_remove(void)
{
	misc_deregister(&exchange_device);
	kvfree(board.data);
}
