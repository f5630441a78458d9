// SPDX-License-Identifier: GPL-2.0
//
// Dynamic named items: the on-flash format they leave, capacity and the
// compaction that reclaims it, the rule that no write may replace another
// item's last intact copy, odd requests and odd head images. Random
// sequences and faults are the campaign's (test_campaign).
//
// Expected values come from the documented formats (offsets, lengths, the
// slot = content + SHA-256 rule), never from the code under test.
#include "model.h"

#include <openssl/sha.h>

#include <algorithm>
#include <cstring>
#include <functional>

extern "C" {
#include <linux/fs.h>
#include "access/access.h"
#include "dynamic/dynamic.h"
#include "store/store.h"
}

namespace {

using model::Bytes;
using model::u32;

constexpr u32 kMax = 32768;

using model::pattern;

user_cfg_para request(u32 dev, const std::string &name, u32 size)
{
	user_cfg_para p;
	std::memset(&p, 0, sizeof(p));
	p.device_id = dev;
	p.cfg_index = -1;
	std::memcpy(p.name, name.data(), std::min<std::size_t>(name.size(), 32));
	p.buf_size = size;
	return p;
}

// The kernel-side wrappers, called directly: they take any length the
// store accepts (0 included) and any 32 name bytes.
int kset(u32 dev, const std::string &name, const Bytes &v)
{
	user_cfg_para p = request(dev, name, static_cast<u32>(v.size()));
	Bytes copy = v;
	return devdrv_kernel_set_config_dynamic(&p, copy.data(),
						static_cast<u32>(copy.size()));
}

// The store's own write, below the wrapper (whose copy refuses 0 bytes).
int dset(u32 dev, const std::string &name, const Bytes &v)
{
	user_cfg_para p = request(dev, name, static_cast<u32>(v.size()));
	std::vector<u8> hb(65536), cb(65536), buf(kMax);
	std::copy(v.begin(), v.end(), buf.begin());
	user_cfg_op_ctx ctx;
	std::memset(&ctx, 0, sizeof(ctx));
	ctx.dev_id = dev;
	ctx.head_blk = hb.data();
	ctx.content_blk = cb.data();
	ctx.content_buf = buf.data();
	ctx.content_size = p.buf_size;
	ctx.head_idx = -1;
	return devdrv_config_set_item_dynamic(&p, &ctx);
}

model::Result kget(u32 dev, const std::string &name, u32 room = kMax)
{
	user_cfg_para p = request(dev, name, room);
	Bytes buf(room + 1);
	u32 out = 0xdeadbeef;
	model::Result r;
	r.rc = devdrv_kernel_get_config_dynamic(&p, buf.data(), room, &out);
	if (r.rc == 0) {
		buf.resize(out);
		r.data = buf;
	}
	return r;
}

user_cfg_head_blk head(u32 dev, u32 blk = 0)
{
	user_cfg_head_blk h;
	tb::flash::Image img = tb::flash::block(dev, blk);
	static_assert(sizeof(h) == 65536, "head block is one block");
	std::memcpy(&h, img.data(), sizeof(h));
	return h;
}

void seal(user_cfg_head_blk &h)
{
	SHA256(reinterpret_cast<const unsigned char *>(&h), 65500, h.check_code);
}

// Changes both head copies and gives them a fresh check code.
void edit_heads(u32 dev, const std::function<void(user_cfg_head_blk &)> &fn)
{
	user_cfg_head_blk h = head(dev);
	fn(h);
	seal(h);
	tb::flash::load_block(dev, 0, &h);
	tb::flash::load_block(dev, 32, &h);
}

// A fresh, valid, empty head on both copies.
user_cfg_head_blk empty_head()
{
	user_cfg_head_blk h;
	std::memset(&h, 0, sizeof(h));
	h.format_word = 1;
	h.valid_flag = 0x8a7b6c5dU;
	for (u32 i = 0; i < 32; i++) {
		h.usage[i].blk_id = static_cast<std::uint8_t>(i);
		h.usage[i].use_flg = i < 2;
		h.usage[i].used_bytes = i < 2 ? 0xffff : 0;
	}
	return h;
}

Bytes slot_of(u32 dev, u32 blk, u32 off, u32 n)
{
	tb::flash::Image img = tb::flash::block(dev, blk);
	return Bytes(img.begin() + off, img.begin() + off + n + 32);
}

Bytes slot_image(const Bytes &content)
{
	Bytes s = content;
	s.resize(content.size() + 32);
	SHA256(content.data(), content.size(), s.data() + content.size());
	return s;
}

const user_cfg_item_head *find_rec(const user_cfg_head_blk &h,
				   const std::string &name)
{
	for (u32 i = 0; i < h.head_len / 52; i++)
		if (std::strncmp(h.item_head[i].name, name.c_str(), 32) == 0)
			return &h.item_head[i];
	return nullptr;
}

// Successful block writes since the last mark, in order.
std::vector<u32> written_since_mark(u32 dev, const std::vector<tb::flash::Transfer> &before)
{
	std::vector<tb::flash::Transfer> all = tb::flash::trace();
	std::vector<u32> w;
	for (std::size_t i = before.size(); i < all.size(); i++)
		if (all[i].write && all[i].dev == dev && all[i].ret == 0)
			w.push_back(all[i].blk);
	return w;
}

[[maybe_unused]] int sync_block(u32 dev, u32 blk)
{
	tb::flash::Image h = tb::flash::block(dev, 0);
	return devdrv_config_sync_main_backup(dev, h.data(), 1, blk);
}

std::size_t rebuilds()
{
	return tb::log::count(tb::log::Level::Notice, "",
			      "block space is not enough, rebuild content and try again");
}

} // namespace

class Dynamic : public tb::Fixture {
protected:
	void SetUp() override
	{
		tb::Fixture::SetUp();
		model::store::become_daemon();
	}
};

// ---------------------------------------------------------------------------
// Placement, records, slots and the first write, byte by byte.
TEST_F(Dynamic, FormatOfPlacementRecordsAndSlots)
{
	const auto before = tb::flash::trace();
	const Bytes a = pattern(100, 1);
	ASSERT_EQ(kset(0, "alpha", a), 0);
	// Blank flash: content, head, then their backups.
	EXPECT_EQ(written_since_mark(0, before), (std::vector<u32>{2, 0, 34, 32}));

	struct Add {
		const char *name;
		u32 len, blk, off, used_after;
	};
	// First fit from block 2; a slot costs n + 32 and must end by 65,535.
	const Add adds[] = {
		{"beta", 200, 2, 132, 364},
		{"gamma", kMax, 2, 364, 33164},
		{"delta", kMax, 3, 0, 32800},
		// 33164 + 32372 = 65536: one byte too many for block 2.
		{"eps0", 32340, 3, 32800, 65172},
		// 33164 + 32371 = 65535: fills block 2 exactly.
		{"eps1", 32339, 2, 33164, 65535},
		// Block 2 is full; block 3 still has room for 33 bytes.
		{"zeta", 1, 3, 65172, 65205},
	};
	std::vector<Bytes> vals;
	for (u32 i = 0; i < 6; i++) {
		vals.push_back(pattern(adds[i].len, 10 + i));
		ASSERT_EQ(kset(0, adds[i].name, vals[i]), 0) << adds[i].name;
		user_cfg_head_blk h = head(0);
		EXPECT_EQ(h.usage[adds[i].blk].used_bytes, adds[i].used_after) << adds[i].name;
	}

	user_cfg_head_blk h = head(0);
	user_cfg_head_blk hb = head(0, 32);
	EXPECT_EQ(std::memcmp(&h, &hb, sizeof(h)), 0);
	EXPECT_EQ(model::check_flash(0), "");
	EXPECT_EQ(h.format_word, 1u);
	EXPECT_EQ(h.head_len, 7u * 52);
	const auto &r0 = h.item_head[0];
	char want_name[32] = "alpha";
	EXPECT_EQ(std::memcmp(r0.name, want_name, 32), 0);
	EXPECT_EQ(r0.blk_offset, 2u);
	EXPECT_EQ(r0.item_offset, 0u);
	EXPECT_EQ(r0.item_bytes, 100u);
	EXPECT_EQ(r0.authority_flg, 0u);
	EXPECT_EQ(r0.valid_flg, 1u);
	EXPECT_EQ(slot_of(0, 2, 0, 100), slot_image(a));
	EXPECT_EQ(slot_of(0, 34, 0, 100), slot_image(a));
	for (u32 i = 0; i < 6; i++) {
		const auto &r = h.item_head[i + 1];
		EXPECT_STREQ(std::string(r.name, strnlen(r.name, 32)).c_str(), adds[i].name);
		EXPECT_EQ(r.blk_offset, adds[i].blk) << adds[i].name;
		EXPECT_EQ(r.item_offset, adds[i].off) << adds[i].name;
		EXPECT_EQ(r.item_bytes, adds[i].len);
		EXPECT_EQ(slot_of(0, adds[i].blk, adds[i].off, adds[i].len), slot_image(vals[i]));
		EXPECT_EQ(slot_of(0, adds[i].blk + 32, adds[i].off, adds[i].len), slot_image(vals[i]));
	}
	for (u32 i = 0; i < 32; i++) {
		EXPECT_EQ(h.usage[i].blk_id, i);
		EXPECT_EQ(h.usage[i].use_flg, i <= 3 ? 1 : 0) << i;
		if (i < 2 || i > 3) {
			EXPECT_EQ(h.usage[i].used_bytes, i < 2 ? 0xffff : 0) << i;
		}
	}
	// Nothing of the dynamic store strays into the unused blocks.
	EXPECT_EQ(tb::flash::writes(0, 1) + tb::flash::writes(0, 33) +
			  tb::flash::reads(0, 1) + tb::flash::reads(0, 33), 0u);
	EXPECT_EQ(tb::flash::total_writes() - tb::flash::writes(0, 0) -
			  tb::flash::writes(0, 32) - tb::flash::writes(0, 2) -
			  tb::flash::writes(0, 34) - tb::flash::writes(0, 3) -
			  tb::flash::writes(0, 35), 0u);
}

// The compaction: records in index order from offset 0, zeros behind,
// used_bytes the sum, use_flg kept, damaged-in-both items dropped with
// their record kept at its old offset; and then reuse of that record.
TEST_F(Dynamic, FormatAfterRebuild)
{
	const Bytes A = pattern(100, 1), B = pattern(200, 2), L = pattern(kMax, 3),
		    K = pattern(300, 4), H = pattern(50, 5);
	ASSERT_EQ(kset(0, "A", A), 0);	// r0 b2@0
	ASSERT_EQ(kset(0, "B", B), 0);	// r1 b2@132
	ASSERT_EQ(kset(0, "L", L), 0);	// r2 b2@364
	ASSERT_EQ(kset(0, "K", K), 0);	// r3 b2@33164
	ASSERT_EQ(kset(0, "H", H), 0);	// r4 b2@33496, used 33578
	ASSERT_EQ(model::store::clear(0, "A"), 0);	// H moves to r0
	user_cfg_head_blk h = head(0);
	ASSERT_EQ(h.head_len, 4u * 52);
	ASSERT_STREQ(h.item_head[0].name, "H");
	ASSERT_EQ(h.item_head[0].item_offset, 33496u);
	// A's old slot now holds 0xff bytes with their own check code.
	EXPECT_EQ(slot_of(0, 2, 0, 100), slot_image(Bytes(100, 0xff)));
	EXPECT_EQ(h.usage[2].used_bytes, 33578);

	std::vector<Bytes> fill;
	for (u32 b = 3; b <= 31; b++) {
		fill.push_back(pattern(kMax, 100 + b));
		ASSERT_EQ(kset(0, "F" + std::to_string(b), fill.back()), 0);
		ASSERT_EQ(find_rec(head(0), "F" + std::to_string(b))->blk_offset, b);
	}
	// K is lost in both copies: the rebuild's sync drops it.
	tb::flash::flip_bits(0, 2, 33164 + 5, 0x40);
	tb::flash::flip_bits(0, 34, 33164 + 9, 0x02);

	// Nothing has room for 32,768 bytes, and packing frees only A and K:
	// the rebuild runs, is written, and the item is still refused.
	EXPECT_EQ(kset(0, "G", pattern(kMax, 9)), -ENOSPC);
	EXPECT_EQ(rebuilds(), 1u);
	h = head(0);
	user_cfg_head_blk hb = head(0, 32);
	EXPECT_EQ(std::memcmp(&h, &hb, sizeof(h)), 0);
	EXPECT_EQ(model::check_flash(0), "");
	ASSERT_EQ(h.head_len, 33u * 52);
	// Block 2: H (record 0) first, then B, then L; K's record kept, unused.
	const auto &rh = *find_rec(h, "H"), &rb = *find_rec(h, "B"),
		   &rl = *find_rec(h, "L"), &rk = *find_rec(h, "K");
	EXPECT_EQ(rh.item_offset, 0u);
	EXPECT_EQ(rb.item_offset, 82u);
	EXPECT_EQ(rl.item_offset, 314u);
	EXPECT_NE(rk.valid_flg, 1u);
	EXPECT_EQ(rk.item_offset, 33164u);
	EXPECT_EQ(rk.blk_offset, 2u);
	for (u32 b = 2; b <= 31; b++) {
		EXPECT_EQ(h.usage[b].use_flg, 1) << b;
		EXPECT_EQ(h.usage[b].used_bytes, b > 2 ? 32800 : 82 + 232 + 32800) << b;
		const u32 used = h.usage[b].used_bytes;
		tb::flash::Image m = tb::flash::block(0, b);
		EXPECT_EQ(m, tb::flash::block(0, b + 32)) << b;
		EXPECT_TRUE(std::all_of(m.begin() + used, m.end(),
					[](std::uint8_t c) { return c == 0; })) << b;
	}
	Bytes packed = slot_image(H), sb = slot_image(B), sl = slot_image(L);
	packed.insert(packed.end(), sb.begin(), sb.end());
	packed.insert(packed.end(), sl.begin(), sl.end());
	EXPECT_EQ(slot_of(0, 2, 0, static_cast<u32>(packed.size()) - 32), packed);
	EXPECT_EQ(kget(0, "K").rc, -ENOENT);
	EXPECT_EQ(kget(0, "G").rc, -ENOENT);
	EXPECT_EQ(kget(0, "H").data, H);
	EXPECT_EQ(kget(0, "L").data, L);
	EXPECT_EQ(kget(0, "F17").data, fill[14]);

	// A clear of L (in block 2) makes room once block 2 is packed again.
	edit_heads(0, [](user_cfg_head_blk &x) {
		const_cast<user_cfg_item_head *>(find_rec(x, "K"))->authority_flg = 2;
	});
	ASSERT_EQ(model::store::clear(0, "L"), 0);
	EXPECT_EQ(kset(0, "G", pattern(kMax, 9)), 0);
	EXPECT_EQ(rebuilds(), 2u);
	h = head(0);
	// The clear of L removed a record; G took the first record not in use
	// (K's), which keeps its authority, and the table did not grow.
	EXPECT_EQ(h.head_len, 32u * 52);
	const auto *rg = find_rec(h, "G");
	ASSERT_NE(rg, nullptr);
	EXPECT_EQ(rg - h.item_head, find_rec(hb, "K") - hb.item_head);
	EXPECT_EQ(rg->authority_flg, 2u);
	EXPECT_EQ(rg->blk_offset, 2u);
	EXPECT_EQ(rg->item_offset, 82u + 232u);
	EXPECT_EQ(kget(0, "G").data, pattern(kMax, 9));
	EXPECT_EQ(kget(0, "B").data, B);
	EXPECT_EQ(model::check_flash(0), "");
}

// ---------------------------------------------------------------------------
// Capacity.
namespace {

// Fills blocks 2..31 exactly: a 32,768-byte and a 32,703-byte item each
// (32,800 + 32,735 = 65,535). Returns the names in order.
std::vector<std::string> fill_all(u32 dev, std::vector<Bytes> *vals)
{
	std::vector<std::string> names;
	for (u32 b = 2; b <= 31; b++) {
		for (u32 k = 0; k < 2; k++) {
			std::string n = "fill" + std::to_string(b) + (k ? "b" : "a");
			Bytes v = pattern(k ? 32703 : kMax, b * 2 + k);
			EXPECT_EQ(kset(dev, n, v), 0) << n;
			names.push_back(n);
			vals->push_back(v);
		}
	}
	return names;
}

} // namespace

TEST_F(Dynamic, FullStoreRefusesUntilClearsAreReclaimed)
{
	std::vector<Bytes> vals;
	std::vector<std::string> names = fill_all(0, &vals);
	user_cfg_head_blk h = head(0);
	for (u32 b = 2; b <= 31; b++)
		ASSERT_EQ(h.usage[b].used_bytes, 65535) << b;

	// Even an empty item needs 32 bytes: refused after a rebuild that
	// moves nothing; it only zeroes the last byte of every content block
	// (still erased flash), so it writes the 60 content blocks, no head.
	tb::flash::mark();
	EXPECT_EQ(dset(0, "more", Bytes()), -ENOSPC);
	EXPECT_EQ(rebuilds(), 1u);
	EXPECT_TRUE(tb::log::has(tb::log::Level::Error, "", "Not enough space."));
	EXPECT_EQ(tb::flash::writes_since_mark(), 60u);
	EXPECT_EQ(tb::flash::block(0, 31)[65535], 0);
	EXPECT_EQ(tb::flash::block(0, 63)[65535], 0);

	// A growing item with no room even after packing keeps its old value.
	tb::flash::mark();
	EXPECT_EQ(kset(0, names[1], pattern(kMax, 77)), -ENOSPC);
	EXPECT_EQ(tb::flash::writes_since_mark(), 0u);
	for (std::size_t i = 0; i < names.size(); i++)
		ASSERT_EQ(kget(0, names[i]).data, vals[i]) << names[i];
	EXPECT_EQ(model::check_flash(0), "");

	// Clears reclaim nothing by themselves; the next allocation's rebuild
	// does: both a 32,768-byte item and one that fills the rest fit.
	ASSERT_EQ(model::store::clear(0, names[10]), 0);	// fill7a
	ASSERT_EQ(model::store::clear(0, names[41]), 0);	// fill22b
	EXPECT_EQ(kset(0, "new1", pattern(kMax, 5)), 0);
	EXPECT_EQ(kset(0, "new2", pattern(32703, 6)), 0);
	EXPECT_EQ(find_rec(head(0), "new1")->blk_offset, 7u);
	EXPECT_EQ(find_rec(head(0), "new2")->blk_offset, 22u);
	EXPECT_EQ(kset(0, "new3", pattern(1, 7)), -ENOSPC);
	EXPECT_EQ(kget(0, "new1").data, pattern(kMax, 5));
	EXPECT_EQ(kget(0, "new2").data, pattern(32703, 6));
	for (std::size_t i = 0; i < names.size(); i++) {
		if (i != 10 && i != 41) {
			ASSERT_EQ(kget(0, names[i]).data, vals[i]) << names[i];
		}
	}
	EXPECT_EQ(model::check_flash(0), "");

	// Growing an item in place of a cleared neighbour: the rebuild drops
	// the old slot and places the new content in the same writes.
	ASSERT_EQ(model::store::clear(0, names[20]), 0);	// fill12a
	EXPECT_EQ(kset(0, names[21], pattern(kMax, 8)), 0);	// fill12b grows
	EXPECT_EQ(kget(0, names[21]).data, pattern(kMax, 8));
	EXPECT_EQ(find_rec(head(0), names[21])->blk_offset, 12u);
	EXPECT_EQ(model::check_flash(0), "");
}

// The item-head table holds 1,099 records; the refusal comes before any
// search for a free record.
TEST_F(Dynamic, ItemHeadTableLimit)
{
	struct Row {
		u32 records;
		bool one_free;
		int want;
	};
	const Row rows[] = {{1098, false, 0}, {1099, false, -ENOSPC}, {1099, true, -ENOSPC}};
	for (const Row &row : rows) {
		tb::reset();
		model::store::become_daemon();
		user_cfg_head_blk h = empty_head();
		h.usage[5].use_flg = 1;
		h.usage[5].used_bytes = 32;
		Bytes empty_slot = slot_image(Bytes());
		tb::flash::Image b5(65536, 0);
		std::copy(empty_slot.begin(), empty_slot.end(), b5.begin());
		tb::flash::load_block(0, 5, b5);
		tb::flash::load_block(0, 37, b5);
		for (u32 i = 0; i < row.records; i++) {
			auto &r = h.item_head[i];
			std::snprintf(r.name, 32, "r%u", i);
			r.blk_offset = 5;
			r.valid_flg = 1;
		}
		if (row.one_free)
			h.item_head[7].valid_flg = 0;
		h.head_len = row.records * 52;
		seal(h);
		tb::flash::load_block(0, 0, &h);
		tb::flash::load_block(0, 32, &h);

		const int rc = kset(0, "last", pattern(10, 1));
		EXPECT_EQ(rc, row.want) << row.records;
		user_cfg_head_blk after = head(0);
		if (row.want == 0) {
			EXPECT_EQ(after.head_len, 1099u * 52);
			EXPECT_STREQ(after.item_head[1098].name, "last");
			EXPECT_EQ(kget(0, "last").data, pattern(10, 1));
		} else {
			EXPECT_TRUE(tb::log::has(tb::log::Level::Error, "",
						 "Item head too long. (head_length=57148)"));
			EXPECT_EQ(std::memcmp(&after, &h, sizeof(h)), 0);
		}
		EXPECT_EQ(kget(0, "r1098").rc, row.records == 1099 ? 0 : -ENOENT);
		EXPECT_EQ(kget(0, "r3").rc, 0);
	}
}

// ---------------------------------------------------------------------------
// A get that reads an item from its backup slot restores that slot alone
// in the main block: V, damaged in the backup block but intact in the main
// one, keeps its last intact copy. (Every write path's protection of the
// other slots of its block is the campaign's: damage in one copy of a live
// slot followed by writes to that block.)
TEST_F(Dynamic, GetRepairRestoresOnlyItsOwnSlot)
{
	const Bytes kV = pattern(500, 50), kT = pattern(100, 51);
	model::store::become_daemon();
	ASSERT_EQ(kset(0, "T", kT), 0);	// b2@0
	ASSERT_EQ(kset(0, "V", kV), 0);	// b2@132
	const user_cfg_item_head v = *find_rec(head(0), "V");
	tb::flash::flip_bits(0, v.blk_offset + 32, v.item_offset + 7, 0x10);
	tb::flash::flip_bits(0, 2, find_rec(head(0), "T")->item_offset + 3, 0x01);
	const Bytes bk_before = tb::flash::block(0, v.blk_offset + 32);

	const auto before = tb::flash::trace();
	model::Result t = model::store::get(0, "T");
	ASSERT_EQ(t.rc, 0);
	EXPECT_EQ(t.data, kT);
	// Only the main content block is written, and V's damaged backup slot
	// is left for the next sync.
	EXPECT_EQ(written_since_mark(0, before), std::vector<u32>{2});
	EXPECT_EQ(tb::flash::block(0, 34), bk_before);
	EXPECT_EQ(slot_of(0, 2, 0, 100), slot_image(kT));
	EXPECT_EQ(kget(0, "V").data, kV);

	ASSERT_EQ(sync_block(0, v.blk_offset), 0);
	EXPECT_EQ(model::check_flash(0), "");
	EXPECT_EQ(slot_of(0, v.blk_offset + 32, v.item_offset, 500), slot_image(kV));
}

// ---------------------------------------------------------------------------
// Odd requests and odd head images.
TEST_F(Dynamic, NamesAreThirtyTwoBytesCompareLikeStrings)
{
	const std::string n32(32, 'n'), n31 = std::string(31, 'n'),
			  n31m = std::string(31, 'n') + "m";
	std::string junk("abc\0junkjunk", 12);
	ASSERT_EQ(kset(0, n32, pattern(10, 1)), 0);
	ASSERT_EQ(kset(0, n31m, pattern(11, 2)), 0);
	ASSERT_EQ(kset(0, junk, pattern(12, 3)), 0);
	ASSERT_EQ(kset(0, "", pattern(13, 4)), 0);
	user_cfg_head_blk h = head(0);
	ASSERT_EQ(h.head_len, 4u * 52);
	// Stored whole: no terminating NUL, bytes behind a NUL kept.
	EXPECT_EQ(std::memcmp(h.item_head[0].name, n32.data(), 32), 0);
	char want[32] = {};
	std::memcpy(want, junk.data(), junk.size());
	EXPECT_EQ(std::memcmp(h.item_head[2].name, want, 32), 0);
	EXPECT_EQ(h.item_head[3].name[0], 0);

	EXPECT_EQ(kget(0, n32).data, pattern(10, 1));
	EXPECT_EQ(kget(0, n31m).data, pattern(11, 2));
	EXPECT_EQ(kget(0, n31).rc, -ENOENT);
	EXPECT_EQ(kget(0, "abc").data, pattern(12, 3));
	EXPECT_EQ(kget(0, "abcj").rc, -ENOENT);
	EXPECT_EQ(kget(0, "").data, pattern(13, 4));
	// The 32-byte name through the device file as well.
	EXPECT_EQ(model::store::get(0, n32).data, pattern(10, 1));
	EXPECT_EQ(model::check_flash(0), "");
}

TEST_F(Dynamic, ContentLengthsAndCallerBuffers)
{
	// Empty content: the slot is the check code of nothing.
	ASSERT_EQ(dset(0, "empty", Bytes()), 0);
	const user_cfg_item_head e = *find_rec(head(0), "empty");
	EXPECT_EQ(e.item_bytes, 0u);
	EXPECT_EQ(slot_of(0, 2, e.item_offset, 0), slot_image(Bytes()));
	model::Result r = kget(0, "empty", 1);
	EXPECT_EQ(r.rc, 0);
	EXPECT_TRUE(r.data.empty());
	// The wrapper's bounded copy has no room for nothing.
	EXPECT_EQ(kset(0, "empty2", Bytes()), -EINVAL);
	// A clear refuses an empty item and leaves it.
	EXPECT_EQ(model::store::clear(0, "empty"), -EINVAL);
	EXPECT_EQ(kget(0, "empty", 1).rc, 0);
	// An empty item grows and shrinks like any other.
	ASSERT_EQ(dset(0, "empty", pattern(7, 7)), 0);
	EXPECT_EQ(kget(0, "empty").data, pattern(7, 7));
	ASSERT_EQ(dset(0, "empty", Bytes()), 0);
	EXPECT_EQ(kget(0, "empty", 1).data, Bytes());

	ASSERT_EQ(kset(0, "big", pattern(kMax, 8)), 0);
	struct Read {
		const char *name;
		u32 room;
		int rc;
		u32 len;
	} reads[] = {
		{"big", kMax, 0, kMax}, {"big", kMax - 1, -ENXIO, 0},
		{"empty", 1, 0, 0},
	};
	for (const Read &rd : reads) {
		model::Result x = kget(0, rd.name, rd.room);
		EXPECT_EQ(x.rc, rd.rc) << rd.name << " " << rd.room;
		EXPECT_EQ(x.data.size(), rd.len);
	}
	// Through the device file the record's buf_size reports the length.
	ASSERT_EQ(kset(0, "small", pattern(100, 9)), 0);
	Bytes buf(200, 0xee);
	user_cfg_para p = request(0, "small", 200);
	p.cmd = USER_CFG_CMD_GET;
	p.buf = reinterpret_cast<std::uintptr_t>(buf.data());
	struct file f;
	std::memset(&f, 0, sizeof(f));
	ASSERT_EQ(devdrv_config_ioctl(&f, USER_CFG_IOC_ITEM, reinterpret_cast<unsigned long>(&p)), 0);
	EXPECT_EQ(p.buf_size, 100u);
	EXPECT_EQ(Bytes(buf.begin(), buf.begin() + 100), pattern(100, 9));
	EXPECT_EQ(buf[100], 0xee);
}

TEST_F(Dynamic, OddHeadImages)
{
	ASSERT_EQ(kset(0, "x", pattern(10, 1)), 0);
	ASSERT_EQ(kset(0, "y", pattern(20, 2)), 0);
	ASSERT_EQ(kset(0, "z", pattern(30, 3)), 0);
	const model::Snapshot good = model::snapshot();

	// A head_len that is not whole records is cut to whole records by the
	// lookup, and a later write carries the cut value.
	edit_heads(0, [](user_cfg_head_blk &h) { h.head_len = 3 * 52 + 10; });
	EXPECT_EQ(kget(0, "z").data, pattern(30, 3));
	ASSERT_EQ(kset(0, "w", pattern(40, 4)), 0);
	EXPECT_EQ(head(0).head_len, 4u * 52);
	EXPECT_EQ(head(0, 32).head_len, 4u * 52);
	// The rebuild and the sync refuse such a head before touching flash.
	{
		user_cfg_head_blk h = head(0);
		h.head_len = 100;
		tb::flash::mark();
		EXPECT_EQ(devdrv_config_rebuild_item_content(0, reinterpret_cast<u8 *>(&h), nullptr),
			  -EINVAL);
		h.head_len = 53;
		EXPECT_EQ(devdrv_config_sync_main_backup(0, reinterpret_cast<u8 *>(&h), 1, 2),
			  -EINVAL);
		EXPECT_EQ(tb::flash::reads_since_mark() + tb::flash::writes_since_mark(), 0u);
	}

	// More than 1,099 records: every dynamic operation refuses.
	edit_heads(0, [](user_cfg_head_blk &h) { h.head_len = 1100 * 52; });
	EXPECT_EQ(kget(0, "x").rc, -ENOSPC);
	EXPECT_EQ(kset(0, "x", pattern(10, 9)), -ENOSPC);
	EXPECT_EQ(kset(0, "new", pattern(10, 9)), -ENOSPC);
	EXPECT_EQ(model::store::clear(0, "x"), -ENOSPC);

	// A record that fails the head check: reads and same-length writes
	// report the check's result; the other items are unaffected.
	struct Bad {
		const char *what;
		std::function<void(user_cfg_item_head &)> poke;
		int rc;
	};
	const Bad bads[] = {
		{"block 32", [](user_cfg_item_head &r) { r.blk_offset = 32; }, -EINVAL},
		{"32,769 bytes", [](user_cfg_item_head &r) { r.item_bytes = 32769; }, -EINVAL},
		{"offset 65,536", [](user_cfg_item_head &r) { r.item_offset = 65536; }, -EINVAL},
		{"slot ends at 65,535",
		 [](user_cfg_item_head &r) { r.item_offset = 65535 - 32 - 10 + 1; }, -EINVAL},
		{"authority 3", [](user_cfg_item_head &r) { r.authority_flg = 3; }, -EACCES},
		{"authority 3 and block 40",
		 [](user_cfg_item_head &r) { r.authority_flg = 3; r.blk_offset = 40; }, -EINVAL},
	};
	for (const Bad &b : bads) {
		SCOPED_TRACE(b.what);
		model::restore(good);
		edit_heads(0, [&](user_cfg_head_blk &h) { b.poke(h.item_head[0]); });
		EXPECT_EQ(kget(0, "x").rc, b.rc);
		// A write of the recorded length checks the record; another
		// length rewrites it first.
		const u32 len = head(0).item_head[0].item_bytes;
		if (len <= kMax) {
			EXPECT_EQ(kset(0, "x", pattern(len, 5)), b.rc);
		}
		EXPECT_EQ(kget(0, "y").data, pattern(20, 2));
	}

	// Duplicate names: the first record of the name decides.
	model::restore(good);
	edit_heads(0, [](user_cfg_head_blk &h) {
		std::strcpy(h.item_head[1].name, "x");	// y's slot, named x
	});
	EXPECT_EQ(kget(0, "x").data, pattern(10, 1));
	ASSERT_EQ(kset(0, "x", pattern(10, 6)), 0);
	EXPECT_EQ(kget(0, "x").data, pattern(10, 6));
	EXPECT_EQ(slot_of(0, 2, 42, 20), slot_image(pattern(20, 2)));	// second untouched
	// A first record not in use hides the second: absent, and a write
	// takes that first free record back.
	edit_heads(0, [](user_cfg_head_blk &h) { h.item_head[0].valid_flg = 0; });
	EXPECT_EQ(kget(0, "x").rc, -ENOENT);
	ASSERT_EQ(kset(0, "x", pattern(5, 7)), 0);
	EXPECT_EQ(head(0).head_len, 3u * 52);
	EXPECT_EQ(head(0).item_head[0].valid_flg, 1u);
	EXPECT_EQ(kget(0, "x").data, pattern(5, 7));
	EXPECT_EQ(model::check_flash(0), "");
}
