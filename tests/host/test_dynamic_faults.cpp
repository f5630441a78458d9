// SPDX-License-Identifier: GPL-2.0
//
// Every dynamic operation kind, interrupted at every flash write (power
// cut, power cut with a torn block, torn write reported as failed) and
// failed at every flash read, on a populated store. After the reboot the
// item written holds its old or its new value (a new item: absent or new;
// a cleared item: its value or absent), and every other item of both
// devices holds exactly what it held.
//
// The operations that rebuild the content blocks make about a hundred
// transfers each; they are swept at every fifth point (deterministically,
// starting at the first) to keep the run short, all others at every point.
#include "model.h"

#include <cstdio>
#include <cstring>

namespace {

using model::Bytes;
using model::u32;

constexpr u32 kMax = 32768;

using model::pattern;

struct Kind {
	const char *name;
	bool full_store;	// blocks filled so that the operation rebuilds
	const char *item;
	u32 new_len;		// 0: the operation is a clear
};

const Kind kKinds[] = {
	{"new_item", false, "n", 700},
	{"same_length", false, "b", 5000},
	{"shorter", false, "b", 1000},
	{"longer", false, "b", 9000},
	{"clear", false, "b", 0},
	{"longer_with_rebuild", true, "T", 32767},
	{"new_item_with_rebuild", true, "N", 32767},
};

void set_ok(model::Model &m, u32 dev, const std::string &name, const Bytes &v)
{
	ASSERT_EQ(model::store::set(dev, name, v), 0) << name;
	m.put(dev, name, v);
}

// A populated store on both devices. The full one leaves block 2 with a
// cleared 32,768-byte slot and no block with room for 32,767 bytes.
void populate(model::Model &m, bool full)
{
	set_ok(m, 1, "other", pattern(64, 99));
	set_ok(m, 0, "ssh_status", Bytes{1});
	if (!full) {
		set_ok(m, 0, "a", pattern(300, 1));
		set_ok(m, 0, "b", pattern(5000, 2));
		set_ok(m, 0, "c", pattern(100, 3));
		set_ok(m, 0, "d", pattern(kMax, 4));
		set_ok(m, 0, "e", pattern(1, 5));
		ASSERT_EQ(model::store::clear(0, "c"), 0);
		m.put(0, "c", std::nullopt);
		return;
	}
	set_ok(m, 0, "T", pattern(100, 6));
	set_ok(m, 0, "V", pattern(500, 7));
	set_ok(m, 0, "X", pattern(kMax, 8));
	set_ok(m, 0, "Y", pattern(32000, 9));
	for (u32 b = 3; b <= 31; b++)
		set_ok(m, 0, "F" + std::to_string(b), pattern(kMax, 10 + b));
	ASSERT_EQ(model::store::clear(0, "X"), 0);
	m.put(0, "X", std::nullopt);
}

} // namespace

class DynamicFaults : public tb::Fixture,
		      public ::testing::WithParamInterface<Kind> {};

TEST_P(DynamicFaults, EveryWriteAndRead)
{
	const Kind &k = GetParam();
	model::store::become_daemon();
	model::Model base;
	populate(base, k.full_store);
	ASSERT_FALSE(HasFatalFailure());
	ASSERT_EQ(model::check_flash(0), "");
	const model::Snapshot snap = model::snapshot();
	const model::Value newv = k.new_len ? model::Value(pattern(k.new_len, 1234)) :
					      std::nullopt;
	auto op = [&]() {
		return k.new_len ? model::store::set(0, k.item, *newv) :
				   model::store::clear(0, k.item);
	};

	// The operation itself, clean: it succeeds, and rebuilds when meant to.
	const std::size_t rb0 = tb::log::count(tb::log::Level::Notice, "",
		"block space is not enough, rebuild content and try again");
	const model::Cost cost = model::measure([&]() { EXPECT_EQ(op(), 0); });
	EXPECT_EQ(tb::log::count(tb::log::Level::Notice, "",
				 "block space is not enough, rebuild content and try again") - rb0,
		  k.full_store ? 1u : 0u);
	ASSERT_GT(cost.writes, 0u);
	const u32 stride = k.full_store ? 5 : 1;

	struct Plan {
		model::FaultKind kind;
		u32 span;
	};
	const Plan plans[] = {
		{model::FaultKind::PowerCut, cost.writes},
		{model::FaultKind::PowerCutTorn, cost.writes},
		{model::FaultKind::TornWrite, cost.writes},
		{model::FaultKind::ReadError, cost.reads},
	};
	u32 scenarios = 0, old_kept = 0, new_seen = 0;
	for (const Plan &p : plans) {
		for (u32 nth = 1; nth <= p.span; nth += stride) {
			model::restore(snap);
			model::Model m = base;
			model::Fault f;
			f.kind = p.kind;
			f.nth = nth;
			// Tear points spread over the block, both fills.
			f.torn_bytes = (nth * 7919u + 4096u) % 65536u;
			f.fill = nth % 2 ? tb::flash::TearFill::OldBytes :
					   tb::flash::TearFill::Erased;
			model::arm(f);
			const int rc = op();
			model::disarm();
			EXPECT_NE(rc, 0) << model::kind_name(p.kind) << " at " << nth;
			if (k.new_len)
				m.maybe(0, k.item, newv);
			else
				m.maybe_cleared(0, k.item);
			for (u32 dev = 0; dev < 2; dev++) {
				const std::string e = model::check_all(m, dev);
				EXPECT_EQ(e, "") << k.name << ": " << model::kind_name(p.kind)
						 << " at transfer " << nth << " of " << p.span;
			}
			const std::vector<model::Value> a = m.allowed(0, k.item);
			if (a.size() == 1)
				(a[0] == newv ? new_seen : old_kept)++;
			scenarios++;
		}
	}
	// Both outcomes occur: early faults keep the old value, faults after
	// the main head is written settle on the new one.
	EXPECT_GT(old_kept, 0u);
	EXPECT_GT(new_seen, 0u);
	RecordProperty("scenarios", static_cast<int>(scenarios));
	std::printf("[ dynamic faults ] %s: %u writes, %u reads, stride %u: %u scenarios "
		    "(old kept %u, new %u, still ambiguous %u)\n",
		    k.name, cost.writes, cost.reads, stride, scenarios, old_kept,
		    new_seen, scenarios - old_kept - new_seen);
}

INSTANTIATE_TEST_SUITE_P(Ops, DynamicFaults, ::testing::ValuesIn(kKinds),
			 [](const ::testing::TestParamInfo<Kind> &i) {
				 return std::string(i.param.name);
			 });
