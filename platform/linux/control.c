// SPDX-License-Identifier: GPL-2.0-only
/*
 * The control device: files, commands, mappings.
 *
 * Commands answer with the driver's own small positive codes, and so does mmap: an "address" below one page is such a
 * code. An open with a positive result would leave the kernel with a file that was never opened, so there the matching
 * error is given instead.
 */
#include "glue.h"
#include "quendrel.h"

#ifdef CONFIG_COMPAT
#include <linux/compat.h>
#endif
#include <linux/moduleparam.h>
#include <linux/poll.h>
#include <linux/uaccess.h>

/*
 * Any open and close of the control device detaches the backup that runs on another file, so the package sets this:
 * while one file is open, a second open is refused; and so is a second StartBackup of that file, without harm.
 */
static family_bool_param exclusive;
module_param(exclusive, bool, 0644);
MODULE_PARM_DESC(exclusive, "refuse a second open of the control device (default: no)");

/* How often a file of the control device was closed: a backup program sees by it that its backup was detached. */
static atomic_t closes = ATOMIC_INIT(0);

static int show_closes(char *to, family_param *kp)
{
	return sprintf(to, "%u\n", (unsigned int)atomic_read(&closes));
}

family_param_get(closes, show_closes);
MODULE_PARM_DESC(closes, "how often a file of the control device was closed");

static const struct qdr_file_operations *core_ops;

/* ---- Calls under way ----------------------------------------------------------------------------------------------- */

static LIST_HEAD(calls);
static DEFINE_SPINLOCK(calls_lock); /* the list; innermost, interrupts off */
/* One call is known without the list, which is all there are as a rule. The task sees only its own value here. */
static struct task_struct *first_task;
static struct qdr_call *first_call; /* of first_task, who alone reads and writes it */

void qdr_call_begin(struct qdr_call *call)
{
	unsigned long flags;

	call->task = current;
	if (!cmpxchg(&first_task, NULL, current)) {
		first_call = call;
		return;
	}
	spin_lock_irqsave(&calls_lock, flags);
	list_add(&call->list, &calls);
	spin_unlock_irqrestore(&calls_lock, flags);
}

void qdr_call_end(struct qdr_call *call)
{
	unsigned long flags;

	if (READ_ONCE(first_task) == current) {
		first_call = NULL;
		smp_mb();
		WRITE_ONCE(first_task, NULL);
	} else {
		spin_lock_irqsave(&calls_lock, flags);
		list_del(&call->list);
		spin_unlock_irqrestore(&calls_lock, flags);
	}
	qdr_destroy_deferred(call); /* first, for the sake of the next backup, which asks for the same names */
	qdr_free_deferred(call);
}

struct qdr_call *qdr_current_call(void)
{
	struct qdr_call *call, *found = NULL;
	unsigned long flags;

	if (READ_ONCE(first_task) == current)
		return first_call;
	if (list_empty_careful(&calls))
		return NULL;
	spin_lock_irqsave(&calls_lock, flags);
	list_for_each_entry(call, &calls, list) {
		if (call->task == current) {
			found = call;
			break;
		}
	}
	spin_unlock_irqrestore(&calls_lock, flags);
	return found;
}

/* ---- Files --------------------------------------------------------------------------------------------------------- */

struct control_file {
	void *cores; /* what the core keeps for the file */
	/*
	 * The transfer areas and their pages. Written by what makes and ends a mapping, read by faults and by commands that
	 * read blocks into an area: an area and its pages stay while a disk writes to them. Inside the address space's lock and
	 * outside of all of the core's, so nothing of the caller's memory may be touched inside it.
	 */
	struct rw_semaphore areas;
	struct qdr_block_device *device; /* of its backup, or null; such records stay until unload */
	atomic_t began; /* StartBackups of this file that the core was given, but for those that ended before they took anything */
};

static int open_error(int result)
{
	switch (result) {
	case QUENDREL_NO_MEMORY:
		return -ENOMEM;
	case QUENDREL_BUSY:
		return -EBUSY;
	default:
		return result > 0 ? -ENODEV : result;
	}
}

static int control_open(struct inode *inode, struct file *file)
{
	unsigned int files = qdr_files_begin();
	struct control_file *mine;
	int result = -EBUSY;

	if (files > 1 && exclusive)
		goto refused;
	result = -ENOMEM;
	mine = kzalloc(sizeof(*mine), GFP_KERNEL);
	if (!mine)
		goto refused;
	init_rwsem(&mine->areas);
	file->private_data = mine;
	result = open_error(core_ops->open(inode, file));
	if (!result)
		return 0;
	kfree(mine);
refused:
	qdr_files_end();
	return result;
}

static int control_release(struct inode *inode, struct file *file)
{
	struct qdr_call call = {.release = true};
	unsigned int before = family_noio_begin();

	/* Counted first: from here on another file's backup may be detached. */
	atomic_inc(&closes);
	qdr_call_begin(&call);
	core_ops->release(inode, file);
	qdr_may_sleep();
	qdr_call_end(&call);
	kfree(file->private_data);
	qdr_files_end();
	family_noio_end(before);
	return 0;
}

static ssize_t control_read(struct file *file, char __user *buffer, size_t count, loff_t *position)
{
	return core_ops->read(file, (qdr_user_addr)(unsigned long)buffer, count, position);
}

static ssize_t control_write(struct file *file, const char __user *buffer, size_t count, loff_t *position)
{
	return core_ops->write(file, (qdr_user_addr)(unsigned long)buffer, count, position);
}

static __poll_t control_poll(struct file *file, struct poll_table_struct *table)
{
	return (__force __poll_t)core_ops->poll(file, table);
}

/* ---- Commands ------------------------------------------------------------------------------------------------------ */

/* Of a StartBackup: whether it ended before it took the driver's one backup, so that the file may try another one. */
static bool took_nothing(const struct qdr_call *call, long result)
{
	/* "Refused" is a number which does not fit the driver's tables, or a size that it does not take. */
	return result == QUENDREL_COPY_FROM_USER ||
	       (result == QUENDREL_REFUSED && (call->records[0].words[0] > 255 || call->records[0].words[1] > 255));
}

/*
 * A second StartBackup puts its file into a state whose close leaves the driver busy for good, so one program could end
 * all backups until the driver is loaded anew. Where a file is alone, nobody else's close would change what the second
 * one is told, so it is told that without the driver.
 */
static long start_backup(struct file *file, struct qdr_call *call, unsigned long arg)
{
	struct control_file *mine = file->private_data;
	long result = QUENDREL_BUSY;
	bool alone = exclusive;

	if (atomic_inc_return(&mine->began) == 1 || !alone)
		result = core_ops->ioctl(family_inode(file), file, call->cmd, arg);
	else
		atomic_dec(&mine->began);
	if (took_nothing(call, result))
		atomic_dec(&mine->began);
	if (!result)
		WRITE_ONCE(mine->device, qdr_find_device(call->records[0].words[0] << 20 | call->records[0].words[1]));
	return result;
}

static long read_blocks(struct file *file, struct qdr_call *call, unsigned long arg)
{
	struct control_file *mine = file->private_data;
	long result;

	down_read(&mine->areas);
	result = core_ops->ioctl(family_inode(file), file, call->cmd, arg);
	up_read(&mine->areas);
	return result;
}

/* What is still under way to the disk may come behind the point in time, and no map would have it. */
static long snapshot(struct file *file, struct qdr_call *call, unsigned long arg)
{
	struct control_file *mine = file->private_data;
	struct qdr_block_device *device = READ_ONCE(mine->device);
	bool quiet = !device || !device->disk || family_wait_for_changes(device->disk, device->real);
	u32 told = qdr_tell_changes();
	long result = core_ops->ioctl(family_inode(file), file, call->cmd, arg);

	qdr_may_sleep();
	if (!quiet)
		qdr_disk_changed(device->disk, "is still busy with a command");
	qdr_tell_changes_again(told);
	return result;
}

static long command(struct file *file, unsigned int cmd, unsigned long arg)
{
	struct qdr_call call = {.cmd = cmd, .gathers = cmd == QUENDREL_READ_BLOCKS};
	/*
	 * No allocation in a command, a close or a mapping waits for the writing of anything: they may hold what the hook waits
	 * for, and what is to be written then waits for them.
	 */
	unsigned int before = family_noio_begin();
	long result;

	result = qdr_caller_begin(&call, arg);
	if (result)
		goto out;
	qdr_call_begin(&call);
	qdr_translate_record(&call);
	if (cmd == QUENDREL_START_BACKUP || cmd == QUENDREL_SNAPSHOT)
		family_look_for_changes();
	qdr_tell_changes();
	if (cmd == QUENDREL_START_BACKUP)
		result = start_backup(file, &call, arg);
	else if (cmd == QUENDREL_READ_BLOCKS)
		result = read_blocks(file, &call, arg);
	else if (cmd == QUENDREL_SNAPSHOT)
		result = snapshot(file, &call, arg);
	else
		result = core_ops->ioctl(family_inode(file), file, cmd, arg);
	qdr_may_sleep();
	qdr_start_reads(NULL);
	qdr_call_end(&call);
out:
	qdr_caller_end(&call);
	family_noio_end(before);
	return result;
}

#ifdef CONFIG_COMPAT
static long control_compat_ioctl(struct file *file, unsigned int cmd, unsigned long arg)
{
	return command(file, cmd, (unsigned long)compat_ptr(arg));
}
#endif

#ifdef FAMILY_LOCKED_IOCTL
static int control_ioctl(struct inode *inode, struct file *file, unsigned int cmd, unsigned long arg)
{
	return command(file, cmd, arg);
}
#endif

/* ---- Mappings ------------------------------------------------------------------------------------------------------ */

static const struct qdr_vm_operations *ops_of(struct vm_area_struct *vma)
{
	return vma->vm_private_data;
}

static struct rw_semaphore *areas_of(struct vm_area_struct *vma)
{
	struct control_file *mine = vma->vm_file->private_data;

	return &mine->areas;
}

static void mapping_open(struct vm_area_struct *vma)
{
	ops_of(vma)->open(vma);
}

static void mapping_close(struct vm_area_struct *vma)
{
	struct rw_semaphore *areas = areas_of(vma);

	down_write(areas);
	ops_of(vma)->close(vma);
	up_write(areas);
	qdr_free_unmapped();
}

static vm_fault_t mapping_fault(FAMILY_FAULT_ARGUMENTS)
{
	struct rw_semaphore *areas = areas_of(FAMILY_FAULT_MAPPING);
	vm_fault_t result;

	down_read(areas);
	result = (__force vm_fault_t)ops_of(FAMILY_FAULT_MAPPING)->fault(FAMILY_FAULT_MAPPING, vmf);
	up_read(areas);
	return result;
}

static family_vm_operations mapping_ops = {
	.open = mapping_open,
	.close = mapping_close,
	.fault = mapping_fault,
};

static int control_mmap(struct file *file, struct vm_area_struct *vma)
{
	struct control_file *mine = file->private_data;
	unsigned int before = family_noio_begin();
	int result;

	down_write(&mine->areas);
	result = core_ops->mmap(file, vma);
	up_write(&mine->areas);
	family_noio_end(before);
	return result;
}

unsigned long qk_vma_start(struct vm_area_struct *vma)
{
	return vma->vm_start;
}

unsigned long qk_vma_end(struct vm_area_struct *vma)
{
	return vma->vm_end;
}

unsigned long qk_vma_flags(struct vm_area_struct *vma)
{
	BUILD_BUG_ON(VM_READ != 1 || VM_WRITE != 2 || VM_SHARED != 8);
	return vma->vm_flags;
}

unsigned long qk_vma_page_offset(struct vm_area_struct *vma)
{
	return vma->vm_pgoff;
}

struct file *qk_vma_file(struct vm_area_struct *vma)
{
	return vma->vm_file;
}

void qk_vma_set_ops(struct vm_area_struct *vma, const struct qdr_vm_operations *ops)
{
	vma->vm_private_data = (void *)ops;
	vma->vm_ops = &mapping_ops;
}

unsigned long qk_vm_fault_address(struct vm_fault *vmf)
{
	return (unsigned long)FAMILY_FAULT_ADDRESS(vmf);
}

void qk_vm_fault_set_page(struct vm_fault *vmf, struct page *p)
{
	vmf->page = p;
}

/* ---- Registration and modules -------------------------------------------------------------------------------------- */

static const struct file_operations control_fops = {
	.owner = THIS_MODULE,
	.open = control_open,
	.release = control_release,
	.read = control_read,
	.write = control_write,
	.poll = control_poll,
#ifdef FAMILY_LOCKED_IOCTL
	.ioctl = control_ioctl,
#else
	.unlocked_ioctl = command,
#endif
#ifdef CONFIG_COMPAT
	.compat_ioctl = control_compat_ioctl,
#endif
	.mmap = control_mmap,
};

int qk_register_chrdev(unsigned int major, const char *name, const struct qdr_file_operations *fops)
{
	core_ops = fops;
	return register_chrdev(major, name, &control_fops);
}

void qk_unregister_chrdev(unsigned int major, const char *name)
{
	unregister_chrdev(major, name);
}

void *qk_file_private(struct file *f)
{
	struct control_file *mine = f->private_data;

	return mine->cores;
}

void qk_file_set_private(struct file *f, void *data)
{
	struct control_file *mine = f->private_data;

	mine->cores = data;
}

struct module *qk_this_module(void)
{
	return THIS_MODULE;
}

int qk_module_is_going(struct module *m)
{
	return READ_ONCE(m->state) == MODULE_STATE_GOING;
}

int qk_try_module_get(struct module *m)
{
	return try_module_get(m);
}

void qk_module_put(struct module *m)
{
	module_put(m);
}
