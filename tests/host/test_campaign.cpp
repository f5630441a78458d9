// SPDX-License-Identifier: GPL-2.0
//
// The reliability campaign: one reference model of every item of devices 0
// and 1, one random driver and one fault scheduler.
//
// The driver issues random gets, sets and clears of static and named items
// through both entry points, with sizes chosen so that blocks fill up,
// items of equal length sit side by side and the content blocks must be
// compacted again and again. Every result is checked against the model.
// Before an operation goes through for real, the scheduler runs it in side
// branches from the same flash state, each with one fault: a power cut,
// torn or lost block, failed or miscompared write, failed read or failed
// allocation, at every point the operation reaches (every transfer of
// every operation that compacts). After each fault the flash comes back and
// every item of both devices is read: the item operated on must hold its
// old or its new value, every other item exactly its own. A branch may
// then run more operations from there, and some branches damage one copy
// (or, counted apart, both copies) of a block at rest instead.
//
// UCFG_SEED, UCFG_SECONDS and UCFG_ALL_KINDS run Campaign.Torture: seeds
// from UCFG_SEED on until the time is up, every fault kind at every point.
#include "oracle.h"
#include "view.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <thread>

extern "C" {
#include "drv_user_cfg.h"
}


namespace {

using namespace ucfg;
using Clock = std::chrono::steady_clock;
using Key = std::pair<u32, std::string>;
using Value = std::optional<Bytes>;	// none: absent, or a static's default
namespace fl = tb::flash;

// An item name as the store compares it: up to its first NUL, 32 bytes.
std::string canon(const std::string &n)
{
	return n.substr(0, std::min<std::size_t>(n.find('\0'), 32));
}

struct Model {
	std::map<Key, Value> v;
	std::set<Key> names;	// every named item ever used, present or not

	Value at(const Key &k) const
	{
		auto it = v.find({k.first, canon(k.second)});
		return it == v.end() ? Value() : it->second;
	}
	void put(const Key &k, const Value &x)
	{
		v[{k.first, canon(k.second)}] = x;
		if (!find_static(k.second))
			names.insert({k.first, canon(k.second)});
	}
};

struct Op {
	enum Kind { Get, Set, Clear } kind;
	u32 dev;
	std::string name;
	Bytes value;	// Set
	u32 size;	// Get: the buffer; Set: the length claimed
	Via via;
	std::string str() const
	{
		static const char *const k[] = {"get", "set", "clear"};
		std::string n;
		for (char c : name)
			n += (c > 32 && c < 127) ? std::string(1, c) : "\\x" + std::to_string(u8(c));
		return std::string(k[kind]) + " dev " + std::to_string(dev) + " '" + n + "' size " +
		       std::to_string(size) + (via == Via::Kernel ? " (kernel API)" : "");
	}
};

struct Stats {
	std::uint64_t ops = 0, checks = 0, rebuilds = 0, ghosts = 0, lost_reads = 0;
	std::uint64_t aliasing = 0;	// compactions packing an item on another's place
	std::uint64_t views = 0;	// views of a store checked
	std::map<std::string, std::uint64_t> faults;
	std::uint64_t total() const
	{
		std::uint64_t t = 0;
		for (const auto &f : faults)
			t += f.second;
		return t;
	}
	void add(const Stats &o)
	{
		ops += o.ops;
		checks += o.checks;
		rebuilds += o.rebuilds;
		ghosts += o.ghosts;
		lost_reads += o.lost_reads;
		aliasing += o.aliasing;
		views += o.views;
		for (const auto &f : o.faults)
			faults[f.first] += f.second;
	}
};

struct Config {
	std::uint64_t seed = 1;
	u32 steps = 300;
	double seconds = 0;	// > 0: run until then instead of steps
	double sweep = 0.05;	// chance of a full sweep of an ordinary operation
	double fault = 0.3;	// chance of one random fault
	double rot = 0.05;	// damage of one copy at rest
	double loss = 0.01;	// damage of both copies of one slot
	double follow = 0.25;	// more operations after a fault
	bool all_kinds = false;	// every write fault kind at every write
	u32 prefill = 120;	// sets before the first fault
};

// Names that hold large values: fewer than the 30 content blocks.
constexpr u32 kLarge = 29;

const fl::Fault kWriteFaults[] = {fl::Fault::PowerCut, fl::Fault::TornCut, fl::Fault::TornWrite,
				  fl::Fault::SilentTear, fl::Fault::WriteError, fl::Fault::Corrupt};
const char *const kFaultNames[] = {"power-cut", "power-cut-torn", "torn-write", "silent-tear",
				   "write-error", "corrupt-write"};

class Campaign {
public:
	explicit Campaign(const Config &c) : cfg_(c), rng_(c.seed) {}
	std::string run();
	Stats stats;

private:
	Config cfg_;
	std::mt19937_64 rng_;
	Model m_;
	std::vector<std::string> pool_[2];
	bool fill_ = false;	// the opening sets that fill the store
	std::vector<Bytes> base_;	// the flash of devices 0 and 1 before this step

	u32 pick(u32 n) { return static_cast<u32>(rng_() % n); }
	bool chance(double p) { return std::uniform_real_distribution<>(0, 1)(rng_) < p; }
	Op random_op(const Model &m);
	u32 random_size(u32 name);
	std::string apply(Model &m, const Op &op, bool &changed);
	std::string check(const Model &m, const Op *target, const std::vector<Value> &alt,
			  Model *settle, const std::set<Key> &lost = {});
	std::string branch(const Op &op, const Model &after, fl::Fault f, u32 nth, u32 alloc);
	std::string damage_branch(bool both);
	std::string step(u32 i);
	std::string view_check(u32 dev, const Model *m);
	bool room(u32 dev, const std::string &name, u32 n, bool &sure);
};

// The flash of devices 0 and 1, kept and put back.
void snapshot(std::vector<Bytes> &s)
{
	s.resize(2);
	for (u32 d = 0; d < 2; d++)
		s[d].assign(fl::at(d, 0), fl::at(d, 0) + fl::kArea);
}

void restore(const std::vector<Bytes> &s)
{
	for (u32 d = 0; d < 2; d++)
		std::memcpy(fl::at(d, 0), s[d].data(), fl::kArea);
	fl::reboot();
	tb::alloc::fail_nth(0);
}

// A name's length class: the first names hold large values, nearly a block
// each (so the blocks fill after a few of them moved, and compactions come
// often); the others mostly one small length, in runs that a clear or a
// move to another block breaks, so that packing puts one where another
// was.
u32 Campaign::random_size(u32 name)
{
	static const u32 small[] = {1, 7, 64, 300};
	if (name < kLarge)
		return pick(4) ? 32768 - pick(33) : 16000 + pick(16769);
	u32 r = pick(100);
	return r < 80 ? 50 : r < 88 ? small[pick(4)] : 16000 + pick(16769);
}

Op Campaign::random_op(const Model &m)
{
	Op op{};
	op.dev = chance(0.85) ? 0 : 1;
	u32 r = pick(100);
	op.kind = r < 55 || fill_ ? Op::Set : r < 80 ? Op::Get : Op::Clear;
	bool stat = chance(0.15);
	u32 n_pool = static_cast<u32>(pool_[op.dev].size());
	u32 idx = pick(2) ? pick(std::min(kLarge, n_pool)) : pick(n_pool);
	op.name = stat ? kStatic[pick(6)].name : pool_[op.dev][idx];
	if (op.kind == Op::Clear && !stat && idx < kLarge && pick(3))
		op.kind = Op::Get;	// large values stay, mostly: the blocks stay full
	else if (op.kind == Op::Get && !stat && idx >= kLarge && pick(2))
		op.kind = Op::Clear;	// small ones come and go: new records in a row
	bool plain = op.name.size() < 32 &&
		     op.name.find_first_of(std::string("\x01\xff\n\0", 4)) == std::string::npos;
	op.via = plain && chance(0.3) ? Via::Kernel : Via::Ioctl;
	const Static *s = find_static(op.name);
	Value cur = m.at({op.dev, op.name});
	if (op.kind == Op::Set) {
		u32 n = s ? s->len : random_size(idx);
		// Large values mostly grow, so that they move to free blocks.
		if (!s && cur && chance(idx < kLarge ? 0.6 : 0.2))
			n = std::min<u32>(32768, cur->size() + pick(idx < kLarge ? 17 : 2));
		if (chance(0.03))
			n = s ? n + 1 : pick(2) * 32769;	// refused: a wrong size
		op.value = pattern(n, static_cast<u32>(rng_()));
		op.size = n;
	} else if (op.kind == Op::Get) {
		u32 n = s ? s->len : cur ? static_cast<u32>(cur->size()) : 100;
		op.size = chance(0.9) ? (s ? n : 32768) : std::max<u32>(1, n - 1);
	}
	return op;
}

// Whether a new or growing named item of n bytes has room, compaction
// included, from the head on flash: a content block keeps its items, so
// its free space after packing is what its live slots leave. sure is
// false when a few bytes of slack decide it.
bool Campaign::room(u32 dev, const std::string &name, u32 n, bool &sure)
{
	sure = true;
	const Head *h = head(dev);
	if (!h)
		return true;
	u32 live[32] = {};
	bool fresh = true;
	for (u32 i = 0; i < h->head_len / 52; i++) {
		const Record &r = h->rec[i];
		bool same = canon(std::string(r.name, 32)) == canon(name);
		fresh = fresh && !(same && r.valid == 1);
		if (r.valid == 1 && r.blk < 32 && !same)
			live[r.blk] += r.bytes + 32;
	}
	if (fresh && h->head_len > 57123)
		return false;
	for (u32 b = 2; b < 32; b++) {
		if (h->usage[b].used != 1)
			return true;
		if (n + 32 + 64 < 65536 - live[b])
			return true;
		if (n + 32 < 65536 - live[b])
			sure = false;
	}
	return false;
}

// Whether plain packing of dev's blocks (live slots from offset 0 in
// record order) would put an item exactly where another item's slot is
// now: the layouts in which a compaction cut short could hand out the
// wrong item's bytes, unless the packer avoids them.
bool aliasing_layout(u32 dev)
{
	const Head *h = head(dev);
	if (!h)
		return false;
	u32 n = h->head_len / 52, pos[32] = {};
	std::set<std::tuple<u32, u32, u32>> now;
	for (u32 i = 0; i < n; i++)
		if (h->rec[i].valid == 1)
			now.insert({h->rec[i].blk, h->rec[i].offset, h->rec[i].bytes});
	for (u32 i = 0; i < n; i++) {
		const Record &r = h->rec[i];
		if (r.valid != 1 || r.blk >= 32)
			continue;
		if (pos[r.blk] != r.offset && now.count({r.blk, pos[r.blk], r.bytes}))
			return true;
		pos[r.blk] += r.bytes + 32;
	}
	return false;
}

// The operation for real on the model's state: its result must be the one
// the model predicts, and the model follows it.
std::string Campaign::apply(Model &m, const Op &op, bool &changed)
{
	const Static *s = find_static(op.name);
	Key k{op.dev, op.name};
	Value cur = m.at(k);
	changed = false;
	stats.ops++;
	if (op.kind == Op::Get) {
		Res r = get(op.dev, op.name, op.size, op.via);
		Res want;
		if (s) {
			bool fits = op.via == Via::Ioctl ? op.size == s->len : op.size >= s->len;
			want = fits ? Res{0, cur ? *cur : s->dflt} : Res{-EINVAL, {}};
		} else if (!cur) {
			want.rc = -ENOENT;
		} else {
			want = op.size >= cur->size() ? Res{0, *cur} : Res{-ENXIO, {}};
		}
		return r == want ? "" : op.str() + ": " + show(r) + ", expected " + show(want);
	}
	if (op.kind == Op::Clear) {
		int rc = clear(op.dev, op.name, op.via);
		int want = s || cur ? 0 : -ENOENT;
		if (rc != want)
			return op.str() + ": rc " + std::to_string(rc) + ", expected " +
			       std::to_string(want);
		changed = rc == 0;
		m.put(k, Value());
		return "";
	}
	const Bytes &v = op.value;
	int rc = set(op.dev, op.name, v, op.via);
	bool sure = true;
	bool fits = s || (cur && cur->size() >= v.size()) || room(op.dev, op.name, op.size, sure);
	bool bad = (s && op.size != s->len) || op.size == 0 || op.size > 32768;
	int want = bad ? -EINVAL : fits ? 0 : -ENOSPC;
	if (rc != want && !(!sure && (rc == 0 || rc == -ENOSPC)))
		return op.str() + ": rc " + std::to_string(rc) + ", expected " + std::to_string(want);
	if (rc == 0) {
		m.put(k, v);
		changed = true;
	}
	return "";
}

// Reads every item of both devices through a random entry and compares.
// The target of an interrupted operation may also read as one of alt (as
// it was before, or for a named clear as 0xff bytes: see
// docs/RELIABILITY.md); with settle, the model takes what it read. Items
// in lost were damaged in both copies: they may only fail to read.
std::string Campaign::check(const Model &m, const Op *t, const std::vector<Value> &alt,
			    Model *settle, const std::set<Key> &lost)
{
	std::vector<Key> all;
	for (u32 d = 0; d < 2; d++)
		for (const Static &s : kStatic)
			all.push_back({d, s.name});
	all.insert(all.end(), m.names.begin(), m.names.end());
	for (const Key &k : all) {
		const Static *s = find_static(k.second);
		bool plain = k.second.size() < 32 &&
			     k.second.find_first_of(std::string("\x01\xff\n\0", 4)) == std::string::npos;
		Via via = plain && chance(0.3) ? Via::Kernel : Via::Ioctl;
		Res r = get(k.first, k.second, s ? s->len : 32768, via);
		stats.checks++;
		if (lost.count(k)) {
			stats.lost_reads++;
			if (r.rc == 0)
				return "lost item " + k.second + " returned data";
			continue;
		}
		auto as_res = [&](const Value &v) {
			return v ? Res{0, *v} : s ? Res{0, s->dflt} : Res{-ENOENT, {}};
		};
		std::vector<Value> ok{m.at(k)};
		if (t && t->dev == k.first && canon(t->name) == canon(k.second))
			ok.insert(ok.end(), alt.begin(), alt.end());
		auto it = std::find_if(ok.begin(), ok.end(), [&](const Value &v) {
			return as_res(v) == r;
		});
		if (it == ok.end())
			return "device " + std::to_string(k.first) + " item '" + k.second +
			       "' reads " + show(r) + ", expected " + show(as_res(ok[0])) +
			       (ok.size() > 1 ? " or " + show(as_res(ok[1])) : "");
		if (settle)
			settle->put(k, *it);
	}
	return "";
}

// One fault in a side branch: from the state now on flash, op runs with
// fault f at its nth write or read (or its alloc-th allocation fails);
// then the flash comes back and every item must read right, before and
// after some more operations. The flash is restored afterwards.
std::string Campaign::branch(const Op &op, const Model &after, fl::Fault f, u32 nth, u32 alloc)
{
	Model m = m_;
	Value before = m.at({op.dev, op.name});
	bool changed;
	if (alloc)
		tb::alloc::fail_nth(alloc);
	else
		fl::arm(f, nth, 1 + pick(fl::kBlock - 1), chance(0.5));
	tb::log::clear();
	Model tmp = m;
	apply(tmp, op, changed);	// any result: the fault decides
	fl::reboot();
	tb::alloc::fail_nth(0);
	// What the target may read as: before, after, and for an interrupted
	// named clear 0xff bytes of its old length, which stay readable
	// until the next head write (they then read as absent).
	std::vector<Value> alt{before};
	Value ghost;
	if (op.kind == Op::Clear && !find_static(op.name) && before)
		ghost = Bytes(before->size(), 0xff);
	if (ghost)
		alt.push_back(ghost);
	std::string p = tb::problems();
	if (p.empty())
		p = check(after, &op, alt, &m);
	bool ghosted = ghost && m.at({op.dev, op.name}) == ghost;
	if (ghosted) {
		stats.ghosts++;
		m.put({op.dev, op.name}, Value());
	}
	for (u32 i = 0; p.empty() && chance(cfg_.follow) && i < 2; i++) {
		Op next = random_op(m);
		if (ghosted && canon(next.name) == canon(op.name) && next.dev == op.dev)
			break;
		p = apply(m, next, changed);
		if (p.empty())
			p = check(m, ghosted ? &op : nullptr, {ghost}, nullptr);
		if (!p.empty())
			p = "then " + next.str() + ": " + p;
	}
	restore(base_);
	if (!p.empty())
		return op.str() + " with " + (alloc ? "allocation " + std::to_string(alloc) + " failing"
					      : "fault " + std::to_string(int(f)) + " at transfer " +
						std::to_string(nth)) + ": " + p + "\n" + tb::log::dump(12);
	return "";
}

// What a head copy is, from its bytes.
std::string head_state(const u8 *b)
{
	const auto *h = reinterpret_cast<const Head *>(b);
	if (h->valid_flag == 0x8a7b6c5d)
		return sha256(b, 65500) == Bytes(h->check, h->check + 32) ? "valid" : "bad-check";
	return std::all_of(b, b + 65536, [](u8 c) { return c == 0xff; }) ? "erased" : "no-marker";
}

// The module's view of dev against the flash (heads, every record and the
// health of both copies of its slot, the space) and, when m is given,
// against the model: every named item with its length and every static
// item set or not. Looking must not write, and reads each head once and
// each copy of each content block that holds an item once, in order.
std::string Campaign::view_check(u32 dev, const Model *m)
{
	Bytes before(fl::at(dev, 0), fl::at(dev, 0) + fl::kArea);
	fl::clear_trace();
	std::string error, text = view_text(dev);
	std::optional<ucfg::StoreView> v = ucfg::parse_view(text, error);
	if (!v)
		return "view of device " + std::to_string(dev) + ": " + error + "\n" + text;
	std::string want_trace = "R0 R32";
	auto fail = [&](const std::string &what) { return "view: " + what + "\n" + text; };
	if (v->head_main != head_state(fl::at(dev, 0)) || v->head_backup != head_state(fl::at(dev, 32)))
		return fail("head states");
	const Head *h = head(dev);
	for (const auto &st : v->statics) {
		const Static *s = find_static(st.name);
		if (!s || st.size != s->len || st.set != (h && h->statics[s->offset] == 1))
			return fail("static " + st.name);
		if (m && st.set != m->at({dev, st.name}).has_value())
			return fail("static " + st.name + " set or not");
	}
	std::vector<std::string> want_items;
	std::map<std::string, u32> sizes;
	for (u32 b = 2; h && b < 32; b++) {
		bool read = false;
		for (u32 i = 0; i < h->head_len / 52; i++) {
			const Record &r = h->rec[i];
			if (r.valid != 1 || r.blk != b || r.bytes > 32768 ||
			    r.offset + r.bytes + 32 > 65535 || r.authority > 2)
				continue;
			read = true;
			auto ok = [&](u32 blk) {
				const u8 *slot = fl::at(dev, blk) + r.offset;
				return sha256(slot, r.bytes) == Bytes(slot + r.bytes, slot + r.bytes + 32);
			};
			std::string name = canon(std::string(r.name, 32));
			want_items.push_back(std::to_string(i) + (ok(b) ? " ok" : " bad") +
					     (ok(b + 32) ? " ok " : " bad ") + std::to_string(r.bytes) +
					     " " + std::to_string(b) + " " + std::to_string(r.offset) + " " +
					     name);
			sizes[name] = r.bytes;
		}
		if (read)
			want_trace += " R" + std::to_string(b) + " R" + std::to_string(b + 32);
	}
	std::sort(want_items.begin(), want_items.end());
	std::vector<std::string> got;
	for (const auto &it : v->items)
		got.push_back(std::to_string(it.index) + (it.main_ok ? " ok" : " bad") +
			      (it.backup_ok ? " ok " : " bad ") + std::to_string(it.size) + " " +
			      std::to_string(it.block) + " " + std::to_string(it.offset) + " " +
			      it.name);
	std::sort(got.begin(), got.end());
	if (got != want_items)
		return fail("items and their copies");
	if (h && (v->records != h->head_len / 52 || v->records_in_use != v->items.size()))
		return fail("record table");
	// A block in use takes n bytes while n + 32 < 65536 - used; a free one
	// any item. New records stop past head_len 57,123.
	std::int64_t largest = -1;
	for (u32 b = 2; h && b < 32; b++)
		largest = std::max<std::int64_t>(largest, h->usage[b].used != 1 ? 32768 :
						 std::min(32768, 65503 - h->usage[b].bytes));
	u32 room = h && h->head_len <= 57123 ? 1099 - v->records_in_use : 0;
	if (h && (v->largest != largest || v->room != room))
		return fail("space: largest " + std::to_string(largest) + ", room " +
			    std::to_string(room));
	for (const Key &k : m ? m->names : std::set<Key>())
		if (k.first == dev && m->at(k).has_value() != (sizes.count(k.second) != 0))
			return fail("named item " + k.second);
	if (fl::trace_str(dev) != want_trace || !fl::trace_str(1 - dev).empty())
		return fail("transfers " + fl::trace_str(dev) + ", expected " + want_trace);
	if (std::memcmp(before.data(), fl::at(dev, 0), fl::kArea) != 0)
		return fail("the flash changed");
	stats.views++;
	return "";
}

// Damage at rest in one copy of a block (or, counted apart, in both copies
// of one item's slot), then every item must read right, before and after
// another operation.
std::string Campaign::damage_branch(bool both)
{
	Model m = m_;
	std::set<Key> lost;
	u32 dev = pick(2);
	const Head *h = head(dev);
	if (both) {
		std::vector<const Record *> live;
		for (u32 i = 0; h && i < h->head_len / 52; i++)
			if (h->rec[i].valid == 1)
				live.push_back(&h->rec[i]);
		if (live.empty())
			return "";
		const Record r = *live[pick(live.size())];
		for (u32 copy : {0u, 32u})
			fl::at(dev, r.blk + copy)[r.offset + pick(r.bytes + 32)] ^= 1 << pick(8);
		lost.insert({dev, canon(std::string(r.name, 32))});
		stats.faults["double-copy-damage"]++;
	} else {
		u32 blk = pick(4) ? pick(64) : pick(2) * 32;
		u32 at = pick(fl::kBlock), n = 1 + pick(8);
		for (u32 i = 0; i < n && at + i < fl::kBlock; i++)
			fl::at(dev, blk)[at + i] ^= static_cast<u8>(1 + pick(255));
		stats.faults["damage-at-rest"]++;
	}
	// Looking at the store shows the damage and repairs nothing.
	if (std::string p = view_check(dev, nullptr); !p.empty())
		return "damaged on device " + std::to_string(dev) + ": " + p;
	// The reads that find the damage repair it; now and then one of their
	// transfers fails as well, and only a second pass must be clean.
	std::string p;
	if (!both && chance(0.5)) {
		bool rd = chance(0.5);
		fl::arm(rd ? fl::Fault::ReadError : kWriteFaults[pick(std::size(kWriteFaults))],
			1 + pick(rd ? 40 : 3), 1 + pick(fl::kBlock - 1), chance(0.5));
		for (u32 d = 0; d < 2; d++)
			for (const Static &st : kStatic)
				get(d, st.name, st.len);
		for (const Key &k : m.names)
			get(k.first, k.second, 32768);
		fl::reboot();
		p = tb::problems();
	}
	if (p.empty())
		p = check(m, nullptr, {}, nullptr, lost);
	bool changed;
	Op next = random_op(m);
	if (p.empty() && !lost.count({next.dev, canon(next.name)})) {
		p = apply(m, next, changed);
		if (changed)
			lost.erase({next.dev, canon(next.name)});
		if (p.empty())
			p = check(m, nullptr, {}, nullptr, lost);
	}
	restore(base_);
	return p.empty() ? "" : std::string(both ? "both copies" : "one copy") +
					" damaged on device " + std::to_string(dev) + ": " + p;
}

std::string Campaign::step(u32 i)
{
	snapshot(base_);
	if (chance(cfg_.rot))
		if (std::string p = damage_branch(false); !p.empty())
			return p;
	if (chance(cfg_.loss))
		if (std::string p = damage_branch(true); !p.empty())
			return p;
	Op op = random_op(m_);
	// A dry run counts what the operation reaches: writes, reads,
	// allocations, and whether it compacts.
	fl::clear_trace();
	tb::log::clear();
	u32 a0 = tb::alloc::calls();
	Model dry = m_;
	bool changed;
	std::string why = apply(dry, op, changed);
	u32 allocs = tb::alloc::calls() - a0, reads = 0, writes = 0;
	for (const auto &t : fl::trace())
		(t.write ? writes : reads)++;
	bool rebuilds = tb::log::has(5, "", "block space is not enough, rebuild content and try again");
	restore(base_);
	if (!why.empty())
		return "step " + std::to_string(i) + ": " + why + "\n" + tb::log::dump(12);
	stats.rebuilds += rebuilds;
	stats.aliasing += rebuilds && aliasing_layout(op.dev);

	// The faults of this operation's side branches: at every point when
	// it is swept, else now and then one at a random point.
	bool sweep = rebuilds || chance(cfg_.sweep);
	struct Shot {
		std::size_t kind;	// write fault kind; nk: read, nk + 1: alloc
		u32 nth;
	};
	std::vector<Shot> plan;
	const std::size_t nk = std::size(kWriteFaults);
	for (u32 k = 1; sweep && k <= writes; k++)
		for (std::size_t j = 0; j < (cfg_.all_kinds ? nk : 1); j++)
			plan.push_back({cfg_.all_kinds ? j : pick(nk), k});
	for (u32 k = 1; sweep && k <= reads; k++)
		plan.push_back({nk, k});
	for (u32 k = 1; sweep && k <= allocs; k++)
		plan.push_back({nk + 1, k});
	if (!sweep && writes && chance(cfg_.fault))
		plan.push_back({pick(nk), 1 + pick(writes)});
	if (!sweep && reads && chance(cfg_.fault / 2))
		plan.push_back({nk, 1 + pick(reads)});
	if (!sweep && allocs && chance(cfg_.fault / 2))
		plan.push_back({nk + 1, 1 + pick(allocs)});
	for (const Shot &sh : plan) {
		bool alloc = sh.kind == nk + 1;
		fl::Fault f = sh.kind < nk ? kWriteFaults[sh.kind] : fl::Fault::ReadError;
		stats.faults[alloc ? "alloc-fail" : sh.kind == nk ? "read-error" : kFaultNames[sh.kind]]++;
		std::string p = branch(op, dry, f, alloc ? 0 : sh.nth, alloc ? sh.nth : 0);
		if (!p.empty())
			return "step " + std::to_string(i) + " (seed " + std::to_string(cfg_.seed) +
			       "): " + p;
	}
	why = apply(m_, op, changed);
	if (why.empty() && !tb::problems().empty())
		why = tb::problems();
	if (why.empty() && chance(0.1))
		why = view_check(op.dev, &m_);
	return why.empty() ? "" : "step " + std::to_string(i) + ": " + why;
}

std::string Campaign::run()
{
	tb::reset();
	tb::ctl::dts(kDts[0], kDts[1], kDts[2]);
	tb::task::set(tb::task::daemon());
	for (u32 d = 0; d < 2; d++) {
		for (u32 i = 0; i < (d ? 8 : 48); i++) {
			std::string n = "item" + std::to_string(i);
			if (i % 9 == 1)
				n = std::string(32, 'a' + i % 26);	// no NUL: all 32 bytes
			else if (i % 9 == 4)
				n = "x" + std::to_string(i) + std::string(1, '\0') + "tail";
			else if (i % 9 == 7)
				n = std::string("\x01 name\n") + std::to_string(i) + "\xff";
			pool_[d].push_back(n);
		}
	}
	// Fill the store first: sets only, no faults; the churn of lengths
	// leaves dead space, so that compactions soon become necessary.
	fill_ = true;
	for (u32 i = 0; i < cfg_.prefill; i++) {
		bool changed;
		if (std::string p = apply(m_, random_op(m_), changed); !p.empty())
			return "filling: " + p;
	}
	fill_ = false;
	auto end = Clock::now() + std::chrono::duration<double>(cfg_.seconds);
	for (u32 i = 0; cfg_.seconds > 0 ? Clock::now() < end : i < cfg_.steps; i++)
		if (std::string p = step(i); !p.empty())
			return p;
	if (std::string p = view_check(0, &m_); !p.empty())
		return p;
	return check(m_, nullptr, {}, nullptr);
}

std::string figures(const Stats &s)
{
	std::string t = "| figure | count |\n|---|---:|\n";
	auto row = [&](const std::string &k, std::uint64_t v) {
		t += "| " + k + " | " + std::to_string(v) + " |\n";
	};
	row("operations through the entry points", s.ops);
	row("item reads checked against the model", s.checks);
	row("operations that compacted the content blocks", s.rebuilds);
	row("- of them packing an item onto another's old place", s.aliasing);
	row("faults injected, all kinds, each followed by the every-item check", s.total());
	for (const auto &f : s.faults)
		row("- " + f.first, f.second);
	row("reads of items damaged in both copies (must fail)", s.lost_reads);
	row("interrupted named clears read as 0xff bytes", s.ghosts);
	row("views of a store checked against the flash and the model", s.views);
	return t;
}

double env(const char *name, double dflt)
{
	const char *v = std::getenv(name);
	return v && *v ? std::atof(v) : dflt;
}

class Seeds : public ::testing::TestWithParam<std::uint64_t> {};

// The fixed seeds of make check: each a few hundred operations, every
// compaction swept at every transfer.
TEST_P(Seeds, ModelHoldsUnderFaults)
{
	Config c;
	c.seed = GetParam();
	c.steps = static_cast<u32>(env("UCFG_STEPS", 250));
	c.all_kinds = env("UCFG_ALL_KINDS", 0) != 0;
	Campaign camp(c);
	std::string why = camp.run();
	EXPECT_EQ(why, "") << "replay: UCFG_STEPS=" << c.steps
			   << " build/host/ucfg_tests --gtest_filter='*Seeds*/"
			   << (c.seed - 1) << "'";
	std::printf("%s", figures(camp.stats).c_str());
}
INSTANTIATE_TEST_SUITE_P(Campaign, Seeds, ::testing::Values(1, 2, 3, 4),
			 [](const auto &i) { return "seed" + std::to_string(i.param); });

// make torture: seed after seed until the time is up, every fault kind at
// every write of every operation swept.
TEST(Campaign, Torture)
{
	double seconds = env("UCFG_SECONDS", 0);
	if (seconds <= 0)
		GTEST_SKIP() << "make torture runs this (UCFG_SECONDS)";
	Stats all;
	auto end = Clock::now() + std::chrono::duration<double>(seconds);
	u32 runs = 0;
	for (auto seed = static_cast<std::uint64_t>(env("UCFG_SEED", 1)); Clock::now() < end; seed++) {
		Config c;
		c.seed = seed;
		c.seconds = std::min(120.0, std::chrono::duration<double>(end - Clock::now()).count());
		c.all_kinds = env("UCFG_ALL_KINDS", 1) != 0;
		c.sweep = 0.2;
		Campaign camp(c);
		std::string why = camp.run();
		ASSERT_EQ(why, "") << "replay: UCFG_SEED=" << seed;
		runs++;
		all.add(camp.stats);
	}
	std::printf("[ torture ] %u runs\n%s", runs, figures(all).c_str());
}

// Several tasks at once: two on device 0 and one on device 1, each with
// items of its own, each checking its items after every operation, while
// a fourth reads the CPU partition table and the board id for the first
// time. Run under ThreadSanitizer as well.
TEST(Campaign, Concurrency)
{
	tb::reset();
	tb::ctl::dts(kDts[0], kDts[1], kDts[2]);
	tb::files::set("/sys/fs/cgroup/cpuset/CtrlCPU/cpuset.cpus", "0-1,2-3\n");
	tb::files::set("/sys/fs/cgroup/cpuset/DataCPU/cpuset.cpus", "4,5\n");
	tb::files::set("/sys/fs/cgroup/cpuset/AICPU/cpuset.cpus", "6-9,10-13\n");
	std::vector<std::string> failures(4);
	std::vector<std::thread> threads;
	for (u32 t = 0; t < 3; t++) {
		threads.emplace_back([t, &failures] {
			tb::task::set(tb::task::daemon());
			u32 dev = t == 2;
			for (u32 i = 0; i < 40 && failures[t].empty(); i++) {
				std::string name = "t" + std::to_string(t) + "-" + std::to_string(i % 5);
				Bytes v = pattern(1 + (i * 977 + t) % 9000, i + 100 * t);
				if (set(dev, name, v) != 0)
					failures[t] = "set " + name;
				else if (!(get(dev, name, 32768) == Res{0, v}))
					failures[t] = "read back " + name;
			}
		});
	}
	threads.emplace_back([&failures] {
		dev_user_cfg_cpu_nums n{};
		if (dev_user_cfg_get_cpu_number(1, &n) != 0 || n.ccpu_num != 2 || n.aicpu_num != 4)
			failures[3] = "cpu numbers";
		if (devdrv_get_config_index_by_name("ssh_status") != 5)
			failures[3] = "name lookup";
	});
	for (auto &th : threads)
		th.join();
	for (const auto &f : failures)
		EXPECT_EQ(f, "");
	EXPECT_EQ(tb::problems(), "");
}

} // namespace
