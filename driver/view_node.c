// SPDX-License-Identifier: GPL-2.0
/*
 * The view of each device's store, read-only, in debugfs:
 * user_config/dev0 and user_config/dev1, for root only (mode 0400 and
 * CAP_SYS_ADMIN at open). The text is rendered once, at open, under the
 * device's flash lock, so one open reads one consistent state however it
 * is read in pieces, and a writer waits for at most one rendering. The
 * files exist from the end of the module start to the start of its exit.
 */
#include <linux/capability.h>
#include <linux/debugfs.h>
#include <linux/fs.h>
#include <linux/slab.h>
#include <linux/vmalloc.h>

#include "access/access.h"
#include "driver/driver.h"
#include "store/store.h"

struct dev_user_cfg_view_text {
	char *buf;
	int len;
};

static struct dentry *dev_user_cfg_view_dir;

static int dev_user_cfg_view_open(struct inode *inode, struct file *file)
{
	u32 dev_id = (u32)(uintptr_t)inode->i_private;
	struct dev_user_cfg_view_text *t;
	int ret = -ENOMEM;

	if (!capable(CAP_SYS_ADMIN))
		return -EPERM;
	t = kzalloc(sizeof(*t), GFP_KERNEL);
	if (!t)
		return -ENOMEM;
	t->buf = vmalloc(UCFG_VIEW_SIZE);
	if (!t->buf)
		goto free_text;
	ret = devdrv_config_view(dev_id, t->buf, UCFG_VIEW_SIZE);
	if (ret < 0)
		goto free_buf;
	t->len = ret;
	file->private_data = t;
	return 0;

free_buf:
	vfree(t->buf);
free_text:
	kfree(t);
	return ret;
}

static ssize_t dev_user_cfg_view_read(struct file *file, char __user *ubuf,
				      size_t count, loff_t *ppos)
{
	struct dev_user_cfg_view_text *t = file->private_data;

	return simple_read_from_buffer(ubuf, count, ppos, t->buf, t->len);
}

static int dev_user_cfg_view_release(struct inode *inode, struct file *file)
{
	struct dev_user_cfg_view_text *t = file->private_data;

	vfree(t->buf);
	kfree(t);
	return 0;
}

static const struct file_operations dev_user_cfg_view_fops = {
	.owner = THIS_MODULE,
	.open = dev_user_cfg_view_open,
	.read = dev_user_cfg_view_read,
	.release = dev_user_cfg_view_release,
	.llseek = default_llseek,
};

/* Without debugfs the module works as before: the view is a diagnostic. */
void dev_user_cfg_view_init(void)
{
	static const char *const names[] = { "dev0", "dev1" };
	uintptr_t i;

	dev_user_cfg_view_dir = debugfs_create_dir(USER_CFG_DEV_NAME, NULL);
	for (i = 0; i <= UCFG_WRITE_DEV_MAX; i++)
		debugfs_create_file(names[i], 0400, dev_user_cfg_view_dir,
				    (void *)i, &dev_user_cfg_view_fops);
}

void dev_user_cfg_view_exit(void)
{
	debugfs_remove_recursive(dev_user_cfg_view_dir);
	dev_user_cfg_view_dir = NULL;
}
