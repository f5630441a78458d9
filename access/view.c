// SPDX-License-Identifier: GPL-2.0
/*
 * A read-only view of one device's store, as text, for people and tools.
 *
 * It reads under the device's flash lock, validates the head copies the
 * way every operation does, and checks every named item's slot in both
 * copies, but it never writes: a damaged copy is reported as it is, and
 * its repair stays with the operations that the store defines. The flash
 * is read within the budget of any operation: the two head blocks once
 * each, and each copy of each content block that holds an item once.
 *
 * One fact a line, words separated by spaces; a name comes last on its
 * line, with every byte that is not printable ASCII, a space or a
 * backslash written as \xHH, so any name of up to 32 bytes reads back
 * exactly. tools/view.cpp parses it; docs/ABI/testing/debugfs-user_config
 * documents it:
 *
 *   device 0
 *   head main valid|erased|no-marker|bad-check|unreadable
 *   head backup ...
 *   in_use main|backup|none
 *   copies same|differ
 *   static NAME set|default LENGTH
 *   table records=N in_use=N free=N room=N       (or: table error head_len=N)
 *   item INDEX MAIN BACKUP size=N block=N offset=N name=NAME
 *   record INDEX free|bad
 *   block N in_use=0|1 used=N live=N
 *   space blocks=N live=N dead=N free=N largest=N|none
 *
 * MAIN and BACKUP are ok or bad. largest is the longest named item that a
 * set can place without compacting the content blocks.
 */
#include <linux/errno.h>
#include <linux/kernel.h>
#include <linux/string.h>
#include <linux/vmalloc.h>

#include "common/log.h"
#include "access/access.h"
#include "catalogue/catalogue.h"
#include "store/store.h"

struct devdrv_view {
	char *buf;
	u32 size;
	u32 len;
	u32 dev_id;
	u8 *heads[2];		/* block 0 and block 32 as read */
	u8 *main_blk;		/* content block and its backup, */
	u8 *bk_blk;
	u32 loaded;		/* main block number loaded in them, 0: none */
};

static __printf(2, 3) void devdrv_view_line(struct devdrv_view *v,
					    const char *fmt, ...)
{
	va_list ap;

	va_start(ap, fmt);
	v->len += vscnprintf(v->buf + v->len, v->size - v->len, fmt, ap);
	va_end(ap);
}

/* name, escaped into out (room for 4 bytes a name byte, and the NUL). */
static void devdrv_view_name(char *out, const char *name)
{
	u32 i, n = strnlen(name, UCFG_ITEM_NAME_LEN);

	for (i = 0; i < n; i++) {
		unsigned char c = name[i];

		if (c > ' ' && c < 0x7f && c != '\\')
			*out++ = c;
		else
			out += sprintf(out, "\\x%02x", c);
	}
	*out = '\0';
}

/* State of one head copy; the image holds the block after the call. */
static const char *devdrv_view_head(struct devdrv_view *v, u32 blk, u8 *image,
				    bool *valid)
{
	u32 ok = 0, i;

	*valid = false;
	if (devdrv_config_check_blk_validity(v->dev_id, blk, image, &ok) != 0)
		return "unreadable";
	*valid = ok == 1;
	if (*valid)
		return "valid";
	for (i = 0; i < UCFG_BLK_SIZE && image[i] == 0xff; i++)
		;
	if (i == UCFG_BLK_SIZE)
		return "erased";
	if (ucfg_head(image)->valid_flag != UCFG_VALID_FLAG)
		return "no-marker";
	return "bad-check";
}

/* Whether the slot of rec is intact in the copy given (no log if not). */
static bool devdrv_view_slot_ok(const u8 *image,
				const struct user_cfg_item_head *rec)
{
	const u8 *slot = image + rec->item_offset;
	u8 code[UCFG_SHA256_LEN];

	return devdrv_calculate_block_sha256(slot, rec->item_bytes, code) == 0 &&
	       memcmp(code, slot + rec->item_bytes, UCFG_SHA256_LEN) == 0;
}

/* Loads both copies of content block blk, unless they are loaded. */
static int devdrv_view_load(struct devdrv_view *v, u32 blk)
{
	int ret;

	if (v->loaded == blk)
		return 0;
	v->loaded = 0;
	ret = devdrv_config_read_block(v->dev_id, blk, v->main_blk);
	if (ret == 0)
		ret = devdrv_config_read_block(v->dev_id, blk + UCFG_MAIN_BLK_NUM,
					       v->bk_blk);
	if (ret != 0) {
		UCFG_ERR("The devdrv_config_read_block failed. (device_id=%u; ret=%d)\n",
			 v->dev_id, ret);
		return ret;
	}
	v->loaded = blk;
	return 0;
}

/*
 * The item table, in record order, and the live bytes of every content
 * block. Records are visited block by block, so that each block is read
 * once whatever the record order; then the lines go out in record order.
 */
static int devdrv_view_items(struct devdrv_view *v,
			     struct user_cfg_head_blk *hb, u32 *live)
{
	u32 n = hb->head_len / UCFG_ITEM_HEAD_SIZE, i, blk, used = 0;
	u8 *health;
	int ret = 0;

	/* One byte a record: 1 main ok, 2 backup ok, 4 not in use, 8 bad. */
	health = vzalloc(max_t(u32, n, 1));
	if (!health)
		return -ENOMEM;
	for (i = 0; i < n; i++) {
		if (hb->item_head[i].valid_flg != UCFG_ITEM_VALID)
			health[i] = 4;
		else if (devdrv_user_cfg_head_check(&hb->item_head[i]) != 0)
			health[i] = 8;
	}
	for (blk = UCFG_CONTENT_FIRST_BLK; blk <= UCFG_CONTENT_LAST_BLK; blk++) {
		for (i = 0; i < n && ret == 0; i++) {
			struct user_cfg_item_head *rec = &hb->item_head[i];

			if (health[i] != 0 || rec->blk_offset != blk)
				continue;
			ret = devdrv_view_load(v, blk);
			if (ret != 0)
				break;
			health[i] = devdrv_view_slot_ok(v->main_blk, rec) |
				    devdrv_view_slot_ok(v->bk_blk, rec) << 1;
			live[blk] += rec->item_bytes + UCFG_SHA256_LEN;
		}
	}
	for (i = 0; i < n && ret == 0; i++) {
		struct user_cfg_item_head *rec = &hb->item_head[i];
		char name[4 * UCFG_ITEM_NAME_LEN + 1];

		if (health[i] & 12) {
			devdrv_view_line(v, "record %u %s\n", i,
					 health[i] & 4 ? "free" : "bad");
			continue;
		}
		used++;
		devdrv_view_name(name, rec->name);
		devdrv_view_line(v, "item %u %s %s size=%u block=%u offset=%u name=%s\n",
				 i, health[i] & 1 ? "ok" : "bad",
				 health[i] & 2 ? "ok" : "bad", rec->item_bytes,
				 rec->blk_offset, rec->item_offset, name);
	}
	vfree(health);
	return ret ? ret : (int)used;
}

/*
 * Space: a block in use takes an item of n bytes while n + 32 is below
 * its free tail, an unused block any item; compaction alone reclaims dead
 * bytes. A new item is refused once head_len passes 57,123.
 */
static void devdrv_view_space(struct devdrv_view *v,
			      struct user_cfg_head_blk *hb, const u32 *live,
			      u32 in_use)
{
	u32 n = hb->head_len / UCFG_ITEM_HEAD_SIZE, blocks = 0, blk;
	u64 total_live = 0, dead = 0, free = 0;
	s64 largest = -1;
	u32 room = 0;

	/* Free records are reused; past the limit not even they are. */
	if (hb->head_len <= UCFG_HEAD_LEN_NEW_MAX)
		room = (n - in_use) + (UCFG_ITEM_HEAD_MAX - n);
	devdrv_view_line(v, "table records=%u in_use=%u free=%u room=%u\n", n,
			 in_use, n - in_use, room);
	for (blk = UCFG_CONTENT_FIRST_BLK; blk <= UCFG_CONTENT_LAST_BLK; blk++) {
		struct user_cfg_blk_usage *u = &hb->usage[blk];
		bool used = u->use_flg == 1;
		s64 fits = used ? (s64)UCFG_SLOT_END_MAX - u->used_bytes -
			       UCFG_SHA256_LEN : UCFG_ITEM_CONTENT_MAX;

		devdrv_view_line(v, "block %u in_use=%u used=%u live=%u\n", blk,
				 used, u->used_bytes, live[blk]);
		largest = max_t(s64, largest, min_t(s64, fits,
						    UCFG_ITEM_CONTENT_MAX));
		blocks += used;
		total_live += live[blk];
		free += used ? UCFG_SLOT_END_MAX - min_t(u32, u->used_bytes,
							 UCFG_SLOT_END_MAX) :
			UCFG_SLOT_END_MAX;
		if (used && u->used_bytes > live[blk])
			dead += u->used_bytes - live[blk];
	}
	devdrv_view_line(v, "space blocks=%u live=%llu dead=%llu free=%llu largest=",
			 blocks, total_live, dead, free);
	if (largest < 0)
		devdrv_view_line(v, "none\n");
	else
		devdrv_view_line(v, "%lld\n", largest);
}

static int devdrv_view_render(struct devdrv_view *v)
{
	static const char *const which[] = { "main", "backup" };
	struct user_cfg_head_blk *hb = NULL;
	u32 *live;
	bool valid[2];
	int i, ret;

	devdrv_view_line(v, "device %u\n", v->dev_id);
	for (i = 0; i < 2; i++)
		devdrv_view_line(v, "head %s %s\n", which[i],
				 devdrv_view_head(v, i ? UCFG_HEAD_BK_BLK :
						  UCFG_HEAD_MAIN_BLK,
						  v->heads[i], &valid[i]));
	/* The copy every operation would use: the main one first. */
	if (valid[0] || valid[1])
		hb = ucfg_head(v->heads[valid[0] ? 0 : 1]);
	devdrv_view_line(v, "in_use %s\ncopies %s\n",
			 hb ? which[valid[0] ? 0 : 1] : "none",
			 memcmp(v->heads[0], v->heads[1], UCFG_BLK_SIZE) ?
			 "differ" : "same");
	for (i = 0; i < USER_CFG_ITEM_NUM; i++) {
		const struct user_cfg_item_desc *row = &user_cfg_version_1[i];
		bool set = hb && hb->static_area[row->offset] == 1;

		devdrv_view_line(v, "static %s %s %u\n", row->name,
				 set ? "set" : "default", row->size - 1);
	}
	if (!hb)
		return 0;
	if (hb->head_len % UCFG_ITEM_HEAD_SIZE ||
	    hb->head_len > UCFG_ITEM_TABLE_SIZE) {
		devdrv_view_line(v, "table error head_len=%u\n", hb->head_len);
		return 0;
	}
	live = vzalloc(UCFG_MAIN_BLK_NUM * sizeof(*live));
	if (!live)
		return -ENOMEM;
	ret = devdrv_view_items(v, hb, live);
	if (ret >= 0)
		devdrv_view_space(v, hb, live, ret);
	vfree(live);
	return ret < 0 ? ret : 0;
}

/**
 * devdrv_config_view() - Render the state of a device's store as text.
 * @dev_id: device number, 0 or 1.
 * @buf: receives the text, NUL-terminated.
 * @size: room in @buf; UCFG_VIEW_SIZE is enough for any store.
 *
 * Context: Process context; sleeps. Takes the device's flash lock.
 * Return: the length of the text, or a negative errno: -EINVAL for a bad
 * device, -ENOMEM, or the error of a flash read.
 */
int devdrv_config_view(u32 dev_id, char *buf, u32 size)
{
	struct devdrv_view v = { .buf = buf, .size = size, .dev_id = dev_id };
	int ret = -ENOMEM;

	if (dev_id > UCFG_WRITE_DEV_MAX || !buf || size == 0)
		return -EINVAL;
	buf[0] = '\0';
	v.heads[0] = ka_vmalloc(UCFG_BLK_SIZE);
	if (!v.heads[0])
		goto out;
	v.heads[1] = ka_vmalloc(UCFG_BLK_SIZE);
	if (!v.heads[1])
		goto free_main_head;
	v.main_blk = ka_vmalloc(UCFG_BLK_SIZE);
	if (!v.main_blk)
		goto free_bk_head;
	v.bk_blk = ka_vmalloc(UCFG_BLK_SIZE);
	if (!v.bk_blk)
		goto free_main_blk;

	devdrv_config_mutex_lock(dev_id);
	ret = devdrv_view_render(&v);
	devdrv_config_mutex_unlock(dev_id);

	vfree(v.bk_blk);
free_main_blk:
	vfree(v.main_blk);
free_bk_head:
	vfree(v.heads[1]);
free_main_head:
	vfree(v.heads[0]);
out:
	if (ret < 0)
		UCFG_ERR("The devdrv_config_view failed. (device_id=%u; ret=%d)\n",
			 dev_id, ret);
	return ret < 0 ? ret : (int)v.len;
}
