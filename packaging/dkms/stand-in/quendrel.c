// SPDX-License-Identifier: GPL-2.0-only
// What stands in for the driver on a kernel that it is not tested on: a module that does not load and says why. So a
// package manager gets a module for each kernel that it has, and whoever loads this one learns what to do.
#include <linux/errno.h>
#include <linux/init.h>
#include <linux/kernel.h>
#include <linux/module.h>

#include "reason.h"

/* As the driver has it, for the options that the package gives. */
static int exclusive;
module_param(exclusive, int, 0444);
MODULE_PARM_DESC(exclusive, "without effect here");

static int __init refuse(void)
{
	pr_err("%s\n", REASON);
	return -ENODEV; /* what loading modules at a start takes for no failure */
}

module_init(refuse);
MODULE_LICENSE("GPL");
MODULE_DESCRIPTION("not the driver: " REASON);
MODULE_VERSION(VERSION);
