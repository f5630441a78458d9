// SPDX-License-Identifier: GPL-2.0
//
// The reference model, the random driver and the fault scheduler: one of
// each, shared by every wide test of the store.
//
//  - model::Store is the system under test seen through its real entry
//    points (the ioctl of the device file and the kernel API), never
//    through internals.
//  - model::Model is what every item of devices 0 and 1 must hold. After an
//    operation that a fault interrupted, the item it touched may hold its
//    old or its new value (a set of allowed values); the next read decides
//    which, and anything outside the set is a failure.
//  - model::Fault / model::arm() is the fault scheduler: one fault of one
//    kind at the nth transfer (or allocation) of the next operation.
//  - model::Driver runs random operation sequences, with or without faults,
//    checking every item against the model.
#ifndef UCFG_TEST_MODEL_H
#define UCFG_TEST_MODEL_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "testbed.h"

namespace model {

using Bytes = std::vector<std::uint8_t>;
using u32 = std::uint32_t;
using u64 = std::uint64_t;

// --- The catalogue as the documentation gives it (not read from the code).
struct StaticItem {
	const char *name;
	u32 len;	// value length
	Bytes dflt;	// default value (cpu_num_cfg: from kDtsCpu)
};
extern const std::vector<StaticItem> kStatic;
// CPU numbers the control-module simulator reports in every model test.
constexpr std::uint8_t kDtsCpu[3] = {3, 5, 9};
const StaticItem *find_static(const std::string &name);

// n bytes of a deterministic pseudo-random pattern chosen by seed.
Bytes pattern(u32 n, u32 seed);

// --- The system under test, through its entry points.
enum class Via { Ioctl, KernelApi };
struct Result {
	int rc = 0;
	Bytes data;
};
namespace store {
// Makes the calling thread the whitelisted daemon (uid 1101, running
// /var/devmgr_daemon, with CAP_SYS_ADMIN) and the simulators' world fit for
// the model (two devices, fixed DTS CPU numbers).
void become_daemon();
Result get(u32 dev, const std::string &name, Via via = Via::Ioctl);
int set(u32 dev, const std::string &name, const Bytes &value,
	Via via = Via::Ioctl);
int clear(u32 dev, const std::string &name, Via via = Via::Ioctl);
} // namespace store

// --- What the items must hold.
// nullopt: a dynamic item that is absent, or a static item with no stored
// value (it reads as its default).
using Value = std::optional<Bytes>;

class Model {
public:
	// The item now holds exactly v (a write reached both head copies).
	void put(u32 dev, const std::string &name, const Value &v);
	// The store reports the item absent, but wrote nothing: what an
	// earlier interrupted clear left behind may still be read.
	void absent(u32 dev, const std::string &name)
	{
		items_[{dev, name}] = {std::nullopt};
	}
	// An operation on the item was interrupted: it holds its old value or v.
	void maybe(u32 dev, const std::string &name, const Value &v);
	// The values the item may hold (one when certain).
	std::vector<Value> allowed(u32 dev, const std::string &name) const;
	// Checks one read against the model and, when settle is true, settles
	// the item on what was read. Returns a description of the mismatch, or
	// "" when accepted.
	//
	// A read settles an ambiguous item only while the device's two copies
	// agree (check_flash() clean). After a failed write the copies may
	// differ: the main copy answers reads, but the store promises nothing
	// about that answer until both copies hold it, and a later fault can
	// bring the older copy back. So until then the item stays ambiguous.
	std::string observe(u32 dev, const std::string &name, const Result &r,
			    bool settle = true);
	// Every name the model knows on dev (static names included).
	std::vector<std::string> names(u32 dev) const;
	// Live dynamic bytes (content + check code) and records on dev, for
	// telling a legitimate "store full" from a false one.
	std::size_t dynamic_bytes(u32 dev) const;
	std::size_t dynamic_count(u32 dev) const;
	// Both copies of the item's content were damaged at rest. No store
	// with two copies can bring it back, so from now on until the next
	// successful write of the item a read may only fail (any error code):
	// returning data would be inventing it. Such reads are counted apart
	// (lost_reads), as the one loss the fault model makes unavoidable.
	void lose(u32 dev, const std::string &name);
	bool lost(u32 dev, const std::string &name) const
	{
		return lost_.count({dev, name}) != 0;
	}
	u32 lost_reads() const { return lost_reads_; }

	// An interrupted clear of a dynamic item. Besides its old value and
	// absence, the item may read as 0xff bytes of its old length: the
	// clear writes those bytes with a matching check code into the main
	// slot before the main head drops the record, and the documented read
	// retries through the backup head, which may still list the record,
	// reading the main slot first. Worse, when the cut falls between the
	// main content and the main head, the head keeps the record and the
	// next sync of the block copies the 0xff slot (intact by its check
	// code) over the backup slot: the item then holds 0xff bytes for
	// good. Neither is a lost value but an invented one, forced by the
	// documented clear (0xff content with a valid check code, written
	// before the head) and read path; it is accepted here, in this one
	// place, and counted (ghost_reads) so the evidence shows how often.
	void maybe_cleared(u32 dev, const std::string &name);
	u32 ghost_reads() const { return ghost_reads_; }

private:
	std::map<std::pair<u32, std::string>, std::vector<Value>> items_;
	std::map<std::pair<u32, std::string>, std::vector<Bytes>> ghosts_;
	std::set<std::pair<u32, std::string>> lost_;
	u32 ghost_reads_ = 0;
	u32 lost_reads_ = 0;
};

// Reads every item of dev through the entry and checks it; "" when all
// match. Reads settle ambiguous items while the device's copies agree.
std::string check_all(Model &m, u32 dev, Via via = Via::Ioctl);

// Structural invariants of a device's flash at rest after a successful
// operation: both head copies valid and equal, and every live item's slot
// intact and equal in both content copies. "" when they hold.
std::string check_flash(u32 dev);

// --- The fault scheduler.
enum class FaultKind {
	None,
	PowerCut,		// nth write lost, everything after fails
	PowerCutTorn,		// nth write torn (prefix new, rest old), then cut
	TornWrite,		// nth write torn, reported as failed
	SilentTear,		// nth write torn, reported as success
	WriteError,		// nth write fails, nothing changes
	ReadError,		// nth read fails
	CorruptWrite,		// nth write stores a flipped byte, reports success
	AllocFail,		// nth allocation returns NULL
};
const char *kind_name(FaultKind k);
struct Fault {
	FaultKind kind = FaultKind::None;
	u32 nth = 1;
	u32 torn_bytes = 0;
	tb::flash::TearFill fill = tb::flash::TearFill::OldBytes;
};
void arm(const Fault &f);
// Ends the fault: clears armed faults and restores power ("reboot").
void disarm();

// Transfers and allocations one operation makes, measured by running it on
// the current state and then restoring that state (flash of devices 0, 1).
struct Cost {
	u32 reads = 0, writes = 0, allocs = 0;
};

Cost measure(const std::function<void()> &op);

// Snapshot of the flash of devices 0 and 1.
struct Snapshot {
	tb::flash::Image area[2];
};
Snapshot snapshot();
void restore(const Snapshot &s);

// --- The random driver.
struct DriverConfig {
	std::uint64_t seed = 1;
	u32 steps = 200;
	double fault_rate = 0.0;	// chance of a fault in a mutating step
	double rot_rate = 0.0;		// chance of damage at rest in one copy
	double loss_rate = 0.0;		// chance of damage to both copies of a slot
	u32 max_size = 32768;		// largest dynamic value
	u32 big_percent = 15;		// dynamic sets of 4,097 bytes or more
	u32 names = 24;			// dynamic names in the pool
	u32 prefill = 0;		// small items stored on device 0 first
	bool kernel_api = true;		// mix the kernel API with the ioctl
	bool check_every_step = false;	// read every item after every step
};
struct DriverStats {
	u32 ops = 0, faults = 0, rots = 0, losses = 0, nospace = 0;
	std::map<std::string, u32> faults_by_kind;
};

// --- Figures of a whole campaign (every sweep and driver run of the
// process), for the reliability report.
struct Tally {
	u32 scenarios = 0;	// sweep scenarios (one fault each)
	u32 runs = 0;		// random driver runs
	u64 ops = 0;		// operations issued through the entry points
	u64 checks = 0;		// item reads compared with the model
	u32 rebuilds = 0;	// content compactions the operations caused
	std::map<std::string, u64> faults;	// injected, by kind
	u64 ghost_reads = 0;	// interrupted clears read as 0xff bytes
	u64 lost_reads = 0;	// reads of items damaged in both copies
	u32 failures = 0;	// model mismatches, leaks, contract breaks
};
Tally &tally();
// The figures as a Markdown table.
std::string tally_table();
// Rebuilds logged so far (the compaction's notice).
std::size_t rebuilds_logged();
class Driver {
public:
	explicit Driver(const DriverConfig &cfg);
	// Runs cfg.steps steps; returns "" or the first failure (with the seed
	// and step to reproduce it).
	std::string run();
	const DriverStats &stats() const { return stats_; }
	Model &model() { return model_; }

private:
	std::string step(u32 i);
	void rot(u32 dev);
	void prefill();
	std::string random_name();
	Bytes random_value(u32 len);

	DriverConfig cfg_;
	std::mt19937_64 rng_;
	Model model_;
	DriverStats stats_;
	std::vector<std::string> pool_;
	bool dirty_[2] = {false, false};	// copies may disagree
};

} // namespace model

#endif // UCFG_TEST_MODEL_H
