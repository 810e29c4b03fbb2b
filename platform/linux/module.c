// SPDX-License-Identifier: GPL-2.0-only
/*
 * Load and unload, parameters, the log.
 *
 * The order at unload matters: the core gives every queue its own function back, then the interception waits until no
 * task is inside, and only then goes what such a task may use.
 */
#include "glue.h"
#include "quendrel.h"

#include <linux/moduleparam.h>
#include <linux/ratelimit.h>

static int show_held(char *to, family_param *kp)
{
	int bytes = qdr_print_held(to, PAGE_SIZE - 1);

	to[bytes] = '\n';
	return bytes + 1;
}

family_param_get(held, show_held);
MODULE_PARM_DESC(held, "what the module holds now, by kind");

/* ---- The log ------------------------------------------------------------------------------------------------------- */

/* Of warnings and worse, which a client or a disk that fails can cause by the thousand: so many in so long. */
static DEFINE_RATELIMIT_STATE(complaints, 5 * HZ, 200);

static bool is_too_much(const char *format)
{
	return format[0] == '<' && format[1] <= '4' && !__ratelimit(&complaints);
}

#ifndef KERN_SOH
/* The contract's own conventions. */
int qk_printk(const char *format, ...)
{
	va_list args;
	int result;

	if (is_too_much(format))
		return 0;
	va_start(args, format);
	result = vprintk(format, args);
	va_end(args);
	return result;
}
#else
/*
 * The core's formats begin with "<level>", which kernels of today no longer read. Its %p is what such a kernel makes of
 * one, no address.
 */
int qk_printk(const char *format, ...)
{
	char copy[320];
	size_t n = 0;
	va_list args;
	int result;

	if (is_too_much(format))
		return 0;
	if (format[0] == '<' && format[1] >= '0' && format[1] <= '7' && format[2] == '>') {
		copy[n++] = KERN_SOH[0];
		copy[n++] = format[1];
		format += 3;
	}
	strscpy(copy + n, format, sizeof(copy) - n);
	va_start(args, format);
	result = vprintk(copy, args);
	va_end(args);
	return result;
}
#endif

/* The core's side of this is in inlines.h, and stops the task behind the call. */
void qk_report_bug(const char *file, int line);
void qk_report_bug(const char *file, int line)
{
	pr_crit("quendrel: inconsistency found at %s:%d\n", file, line);
}

int qk_sprintf(char *to, const char *format, ...)
{
	va_list args;
	int result;

	va_start(args, format);
	result = vsprintf(to, format, args);
	va_end(args);
	return result;
}

/* ---- Load and unload ----------------------------------------------------------------------------------------------- */

static int __init quendrel_init(void)
{
	int result;

	/* The interception looks disks up from its first moment on. */
	qdr_devices_init();
	qdr_counted_init();
	result = qdr_bios_init();
	if (result)
		return result;
	result = qdr_buffers_init();
	if (result)
		goto no_buffers;
	result = qdr_intercept_init();
	if (result)
		goto no_interception;
	result = family_changes_init();
	if (result)
		goto no_changes;
	result = family_self_test();
	if (!result) {
		qk_driver_static_init();
		result = qk_driver_init();
	}
	if (!result)
		return 0;
	family_changes_exit();
no_changes:
	qdr_intercept_exit();
no_interception:
	qdr_buffers_exit();
no_buffers:
	qdr_bios_exit();
	return result;
}

static void __exit quendrel_exit(void)
{
	qk_driver_exit();
	qdr_intercept_exit();
	family_changes_exit();
	qdr_devices_exit();
	qdr_buffers_exit();
	qdr_bios_exit();
	qdr_counted_exit();
	if (qdr_holds_anything()) {
		char held[256];

		qdr_print_held(held, sizeof(held));
		pr_warn("quendrel: left behind at unload: %s\n", held);
	}
	qdr_caches_exit();
}

module_init(quendrel_init);
module_exit(quendrel_exit);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("point-in-time images of mounted block devices, and the blocks written between them");
#define TEXT_OF(number) #number
#define TEXT(number) TEXT_OF(number)
MODULE_VERSION(TEXT(QUENDREL_VERSION_MAJOR) "." TEXT(QUENDREL_VERSION_MINOR) "." TEXT(QUENDREL_VERSION_MINOR2));
