// SPDX-License-Identifier: GPL-2.0
//
// Reference model, random driver and fault scheduler (see model.h).
#include "model.h"

#include <openssl/sha.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

extern "C" {
#include <linux/fs.h>
#include "access/access.h"
#include "drv_user_cfg.h"
#include "store/store.h"
}

namespace model {

namespace {

Bytes zeros(u32 n) { return Bytes(n, 0); }

Bytes cpu_default()
{
	Bytes v(16, 0);
	v[0] = kDtsCpu[0];
	v[1] = kDtsCpu[1];
	v[2] = kDtsCpu[2];
	return v;
}

std::string hex_prefix(const Bytes &b)
{
	static const char d[] = "0123456789abcdef";
	std::string s;
	for (std::size_t i = 0; i < b.size() && i < 12; i++) {
		s += d[b[i] >> 4];
		s += d[b[i] & 15];
	}
	if (b.size() > 12)
		s += "...";
	return s + "(" + std::to_string(b.size()) + ")";
}

std::string describe(const Value &v)
{
	return v ? hex_prefix(*v) : std::string("<none>");
}

} // namespace

// Value lengths and defaults as the catalogue documents them.
const std::vector<StaticItem> kStatic = {
	{"cpu_num_cfg", 16, cpu_default()},
	{"p2p_mem_cfg", 4, Bytes{0x04, 0x00, 0x00, 0x00}},
	{"ddr_ecc_enable", 1, Bytes{0x01}},
	{"ccpu_usr_cert_hash", 1024, zeros(1024)},
	{"usershadow", 2048, zeros(2048)},
	{"ssh_status", 1, Bytes{0x00}},
};

Bytes pattern(u32 n, u32 seed)
{
	Bytes b(n);
	u32 x = seed * 2654435761u + 1;
	for (auto &c : b) {
		x = x * 1103515245u + 12345u;
		c = static_cast<std::uint8_t>(x >> 16);
	}
	return b;
}

const StaticItem *find_static(const std::string &name)
{
	for (const auto &s : kStatic)
		if (name == s.name)
			return &s;
	return nullptr;
}

static int static_index(const std::string &name)
{
	for (std::size_t i = 0; i < kStatic.size(); i++)
		if (name == kStatic[i].name)
			return static_cast<int>(i);
	return -1;
}

// ---------------------------------------------------------------------------
namespace store {

void become_daemon()
{
	tb::task::Spec spec;
	spec.comm = "devmgr_daemon";
	spec.uid = 1101;
	spec.cap_sys_admin = true;
	spec.exe = "/var/devmgr_daemon";
	tb::task::set(spec);
	tb::ctl::set_dev_num(2);
	tb::ctl::set_dts_cpu(kDtsCpu[0], kDtsCpu[1], kDtsCpu[2]);
}

static user_cfg_para request(u32 dev, u32 cmd, const std::string &name)
{
	user_cfg_para p;
	std::memset(&p, 0, sizeof(p));
	p.device_id = dev;
	p.cmd = cmd;
	std::memcpy(p.name, name.data(), std::min<std::size_t>(name.size(), 32));
	return p;
}

static int ioctl(user_cfg_para *p)
{
	struct file f;
	std::memset(&f, 0, sizeof(f));
	return devdrv_config_ioctl(&f, USER_CFG_IOC_ITEM,
				   reinterpret_cast<unsigned long>(p));
}

Result get(u32 dev, const std::string &name, Via via)
{
	const StaticItem *s = find_static(name);
	Bytes buf(s ? s->len : USER_CFG_BUF_MAX);
	Result r;

	if (via == Via::KernelApi && name.size() < 32) {
		u32 out = 0;
		r.rc = hal_kernel_get_user_config(dev, name.c_str(), buf.data(),
						  static_cast<u32>(buf.size()), &out);
		if (r.rc == 0) {
			buf.resize(out);
			r.data = buf;
		}
		return r;
	}
	user_cfg_para p = request(dev, USER_CFG_CMD_GET, name);
	p.buf_size = static_cast<u32>(buf.size());
	p.buf = reinterpret_cast<std::uintptr_t>(buf.data());
	r.rc = ioctl(&p);
	if (r.rc == 0) {
		buf.resize(s ? s->len : p.buf_size);
		r.data = buf;
	}
	return r;
}

int set(u32 dev, const std::string &name, const Bytes &value, Via via)
{
	Bytes copy = value;	// the driver never writes it; keep it private
	if (via == Via::KernelApi && name.size() < 32)
		return hal_kernel_set_user_config(dev, name.c_str(), copy.data(),
						  static_cast<u32>(copy.size()));
	user_cfg_para p = request(dev, USER_CFG_CMD_SET, name);
	p.buf_size = static_cast<u32>(copy.size());
	p.buf = reinterpret_cast<std::uintptr_t>(copy.data());
	return ioctl(&p);
}

int clear(u32 dev, const std::string &name, Via via)
{
	int idx = static_index(name);
	if (via == Via::KernelApi && idx >= 0)
		return devdrv_config_clear_user_item(dev, idx);
	user_cfg_para p = request(dev, USER_CFG_CMD_CLEAR, name);
	return ioctl(&p);
}

} // namespace store

// ---------------------------------------------------------------------------
void Model::put(u32 dev, const std::string &name, const Value &v)
{
	items_[{dev, name}] = {v};
	ghosts_.erase({dev, name});
	lost_.erase({dev, name});
}

void Model::maybe_cleared(u32 dev, const std::string &name)
{
	for (const Value &v : allowed(dev, name))
		if (v)
			ghosts_[{dev, name}].push_back(Bytes(v->size(), 0xff));
	maybe(dev, name, std::nullopt);
}

void Model::maybe(u32 dev, const std::string &name, const Value &v)
{
	auto &a = items_[{dev, name}];
	if (a.empty() && !lost_.count({dev, name}))
		a.push_back(std::nullopt);
	if (std::find(a.begin(), a.end(), v) == a.end())
		a.push_back(v);
}

std::vector<Value> Model::allowed(u32 dev, const std::string &name) const
{
	auto it = items_.find({dev, name});
	if (it == items_.end())
		return {std::nullopt};
	return it->second;
}

void Model::lose(u32 dev, const std::string &name)
{
	items_[{dev, name}].clear();
	ghosts_.erase({dev, name});
	lost_.insert({dev, name});
}

std::string Model::observe(u32 dev, const std::string &name, const Result &r,
			   bool settle)
{
	const StaticItem *s = find_static(name);
	std::vector<Value> allow = allowed(dev, name);

	tally().checks++;
	if (r.rc != 0 && lost_.count({dev, name})) {
		lost_reads_++;
		tally().lost_reads++;
		return "";
	}
	for (const Value &v : allow) {
		bool match;
		if (s) {
			const Bytes &want = v ? *v : s->dflt;
			match = r.rc == 0 && r.data == want;
		} else {
			match = v ? (r.rc == 0 && r.data == *v) : r.rc == -ENOENT;
		}
		if (match) {
			if (settle) {
				items_[{dev, name}] = {v};
				lost_.erase({dev, name});
			}
			return "";
		}
	}
	auto g = ghosts_.find({dev, name});
	if (g != ghosts_.end() && r.rc == 0 &&
	    std::find(g->second.begin(), g->second.end(), r.data) != g->second.end()) {
		// Once the copies agree on it, the 0xff content is what the
		// item holds: a later sync copies the intact-looking main slot
		// over the backup one, and the item stays with that content.
		ghost_reads_++;
		tally().ghost_reads++;
		if (settle)
			items_[{dev, name}] = {r.data};
		return "";
	}
	std::ostringstream os;
	os << "dev " << dev << " item '" << name << "': read rc=" << r.rc;
	if (r.rc == 0)
		os << " data=" << hex_prefix(r.data);
	os << ", allowed:";
	if (lost_.count({dev, name}))
		os << " <lost: any error>";
	for (const Value &v : allow)
		os << " " << (v || !s ? describe(v) : "<default>");
	return os.str();
}

std::vector<std::string> Model::names(u32 dev) const
{
	std::vector<std::string> n;
	for (const auto &s : kStatic)
		n.push_back(s.name);
	for (const auto &kv : items_)
		if (kv.first.first == dev && !find_static(kv.first.second))
			n.push_back(kv.first.second);
	return n;
}

std::size_t Model::dynamic_bytes(u32 dev) const
{
	std::size_t sum = 0;
	for (const auto &kv : items_) {
		if (kv.first.first != dev || find_static(kv.first.second))
			continue;
		std::size_t most = 0;
		for (const Value &v : kv.second)
			if (v)
				most = std::max(most, v->size() + 32);
		sum += most;
	}
	return sum;
}

std::size_t Model::dynamic_count(u32 dev) const
{
	std::size_t n = 0;
	for (const auto &kv : items_) {
		if (kv.first.first != dev || find_static(kv.first.second))
			continue;
		for (const Value &v : kv.second)
			if (v) {
				n++;
				break;
			}
	}
	return n;
}

std::string check_all(Model &m, u32 dev, Via via)
{
	// Judged once: on a device whose copies agree, reads repair nothing.
	const bool agree = check_flash(dev).empty();

	for (const std::string &name : m.names(dev)) {
		Result r = store::get(dev, name, via);
		std::string e = m.observe(dev, name, r, agree);
		if (!e.empty())
			return e;
	}
	return "";
}

// ---------------------------------------------------------------------------
static bool head_valid(const tb::flash::Image &img)
{
	const auto *hb = reinterpret_cast<const user_cfg_head_blk *>(img.data());
	unsigned char code[SHA256_DIGEST_LENGTH];

	if (hb->valid_flag != 0x8a7b6c5dU)
		return false;
	SHA256(img.data(), 65500, code);
	return std::memcmp(code, hb->check_code, 32) == 0;
}

static bool slot_intact(const tb::flash::Image &img, u32 off, u32 n)
{
	unsigned char code[SHA256_DIGEST_LENGTH];
	if (static_cast<std::uint64_t>(off) + n + 32 > img.size())
		return false;
	SHA256(img.data() + off, n, code);
	return std::memcmp(code, img.data() + off + n, 32) == 0;
}

std::string check_flash(u32 dev)
{
	tb::flash::Image h0 = tb::flash::block(dev, 0);
	tb::flash::Image h32 = tb::flash::block(dev, 32);
	std::ostringstream os;

	if (std::all_of(h0.begin(), h0.end(), [](std::uint8_t b) { return b == 0xff; }) &&
	    h0 == h32)
		return "";	// never written
	{
		// A clear on a device without a head writes the initialised image
		// as it is, without a check code: two equal copies, none valid.
		const auto *hb = reinterpret_cast<const user_cfg_head_blk *>(h0.data());
		static const std::uint8_t zero[32] = {};
		if (h0 == h32 && hb->valid_flag == 0x8a7b6c5dU &&
		    std::memcmp(hb->check_code, zero, 32) == 0 && hb->head_len == 0)
			return "";
	}
	if (!head_valid(h0) || !head_valid(h32) || h0 != h32) {
		os << "dev " << dev << ": heads main_valid=" << head_valid(h0)
		   << " bk_valid=" << head_valid(h32) << " equal=" << (h0 == h32);
		return os.str();
	}
	const auto *hb = reinterpret_cast<const user_cfg_head_blk *>(h0.data());
	u32 num = hb->head_len / 52;
	for (u32 i = 0; i < num && i < 1099; i++) {
		const user_cfg_item_head &r = hb->item_head[i];
		if (r.valid_flg != 1)
			continue;
		tb::flash::Image m = tb::flash::block(dev, r.blk_offset);
		tb::flash::Image b = tb::flash::block(dev, r.blk_offset + 32);
		bool mi = slot_intact(m, r.item_offset, r.item_bytes);
		bool bi = slot_intact(b, r.item_offset, r.item_bytes);
		bool eq = mi && bi &&
			  std::equal(m.begin() + r.item_offset,
				     m.begin() + r.item_offset + r.item_bytes + 32,
				     b.begin() + r.item_offset);
		if (!mi || !bi || !eq) {
			os << "dev " << dev << ": record " << i << " ('"
			   << std::string(r.name, strnlen(r.name, 32)) << "' blk "
			   << r.blk_offset << " off " << r.item_offset << " len "
			   << r.item_bytes << ") main_intact=" << mi
			   << " bk_intact=" << bi << " equal=" << eq;
			return os.str();
		}
	}
	return "";
}

// ---------------------------------------------------------------------------
const char *kind_name(FaultKind k)
{
	switch (k) {
	case FaultKind::None: return "none";
	case FaultKind::PowerCut: return "power-cut";
	case FaultKind::PowerCutTorn: return "power-cut-torn";
	case FaultKind::TornWrite: return "torn-write";
	case FaultKind::SilentTear: return "silent-tear";
	case FaultKind::WriteError: return "write-error";
	case FaultKind::ReadError: return "read-error";
	case FaultKind::CorruptWrite: return "corrupt-write";
	case FaultKind::AllocFail: return "alloc-fail";
	}
	return "?";
}

void arm(const Fault &f)
{
	namespace fl = tb::flash;
	switch (f.kind) {
	case FaultKind::None:
		break;
	case FaultKind::PowerCut:
		fl::power_cut(f.nth);
		break;
	case FaultKind::PowerCutTorn:
		fl::power_cut(f.nth, f.torn_bytes, f.fill);
		break;
	case FaultKind::TornWrite:
		fl::tear_write(f.nth, f.torn_bytes, f.fill, false, -EIO);
		break;
	case FaultKind::SilentTear:
		fl::tear_write(f.nth, f.torn_bytes, f.fill, true);
		break;
	case FaultKind::WriteError:
		fl::fail_write(f.nth, -EIO);
		break;
	case FaultKind::ReadError:
		fl::fail_read(f.nth, -EIO);
		break;
	case FaultKind::CorruptWrite:
		fl::corrupt_write(f.nth, f.torn_bytes % 65536, 0x10);
		break;
	case FaultKind::AllocFail:
		tb::alloc::fail_nth(f.nth);
		break;
	}
}

void disarm()
{
	tb::flash::clear_faults();
	tb::flash::reboot();
	tb::alloc::clear_faults();
}

Snapshot snapshot()
{
	return Snapshot{{tb::flash::area(0), tb::flash::area(1)}};
}

void restore(const Snapshot &s)
{
	tb::flash::load_area(0, s.area[0]);
	tb::flash::load_area(1, s.area[1]);
}

Cost measure(const std::function<void()> &op)
{
	Snapshot s = snapshot();
	u32 r0 = tb::flash::total_reads(), w0 = tb::flash::total_writes();
	u32 a0 = tb::alloc::calls();
	op();
	Cost c{tb::flash::total_reads() - r0, tb::flash::total_writes() - w0,
	       tb::alloc::calls() - a0};
	restore(s);
	return c;
}

// ---------------------------------------------------------------------------
// ---------------------------------------------------------------------------
Tally &tally()
{
	static Tally t;
	return t;
}

std::string tally_table()
{
	const Tally &t = tally();
	std::ostringstream os;
	u64 faults = 0;
	for (const auto &kv : t.faults)
		faults += kv.second;
	os << "| figure | count |\n|---|---:|\n"
	   << "| sweep scenarios (one fault each) | " << t.scenarios << " |\n"
	   << "| random runs | " << t.runs << " |\n"
	   << "| operations through the entry points | " << t.ops << " |\n"
	   << "| item reads checked against the model | " << t.checks << " |\n"
	   << "| content compactions started | " << t.rebuilds << " |\n"
	   << "| faults injected, all kinds | " << faults << " |\n";
	for (const auto &kv : t.faults)
		os << "| - " << kv.first << " | " << kv.second << " |\n";
	os << "| reads of items damaged in both copies (unavoidable loss) | "
	   << t.lost_reads << " |\n"
	   << "| interrupted clears read as 0xff bytes (documented) | "
	   << t.ghost_reads << " |\n"
	   << "| losses and other failures | " << t.failures << " |\n";
	return os.str();
}

std::size_t rebuilds_logged()
{
	return tb::log::count(tb::log::Level::Notice, "",
			      "block space is not enough, rebuild content and try again");
}

namespace {

// Bytes of dynamic content a device can hold: 30 blocks of 65,535 bytes.
constexpr std::size_t kCapacity = 30u * 65535u;

// Where on flash a block of one copy took damage at rest.
struct Rot {
	u32 dev, blk;
	std::vector<u32> offs;
};
std::vector<Rot> g_rots;

u32 twin(u32 blk) { return blk < 32 ? blk + 32 : blk - 32; }

// The slot of a live dynamic item, from the main head as stored.
bool find_slot(u32 dev, const std::string &name, u32 *blk, u32 *off, u32 *len)
{
	tb::flash::Image h = tb::flash::block(dev, 0);
	const auto *hb = reinterpret_cast<const user_cfg_head_blk *>(h.data());
	for (u32 i = 0; i < hb->head_len / 52 && i < 1099; i++) {
		const user_cfg_item_head &r = hb->item_head[i];
		if (r.valid_flg == 1 && name == std::string(r.name, strnlen(r.name, 32))) {
			*blk = r.blk_offset;
			*off = r.item_offset;
			*len = r.item_bytes;
			return true;
		}
	}
	return false;
}

} // namespace

Driver::Driver(const DriverConfig &cfg) : cfg_(cfg), rng_(cfg.seed)
{
	for (u32 i = 0; i < cfg_.names; i++) {
		std::string n = "item." + std::to_string(i);
		if (i % 7 == 3)	// a name filling the whole field, no NUL
			n = std::string(32 - n.size(), 'x') + n;
		else if (i % 7 == 5)
			n = std::string(31 - n.size(), 'y') + n;
		pool_.push_back(n);
	}
	g_rots.clear();
}

std::string Driver::random_name()
{
	if (rng_() % 4 == 0)
		return kStatic[rng_() % kStatic.size()].name;
	// With a prefilled table, half the picks go to the names beyond it,
	// so that the table fills up.
	if (cfg_.prefill && rng_() % 2)
		return pool_[rng_() % cfg_.names];
	return pool_[rng_() % pool_.size()];
}

Bytes Driver::random_value(u32 len)
{
	Bytes b(len);
	for (auto &x : b)
		x = static_cast<std::uint8_t>(rng_());
	return b;
}

// Damage at rest, between operations, on a device whose copies agree.
void Driver::rot(u32 dev)
{
	std::uniform_real_distribution<double> coin(0.0, 1.0);

	// Damage to both copies of one slot: the item is gone, whatever the
	// store does (see Model::lose).
	if (cfg_.loss_rate > 0 && coin(rng_) < cfg_.loss_rate) {
		std::vector<std::string> live;
		for (const std::string &n : model_.names(dev)) {
			std::vector<Value> a = model_.allowed(dev, n);
			if (!find_static(n) && a.size() == 1 && a[0] && !a[0]->empty())
				live.push_back(n);
		}
		u32 blk, off, len;
		if (!live.empty()) {
			const std::string &n = live[rng_() % live.size()];
			if (find_slot(dev, n, &blk, &off, &len)) {
				u32 at = off + static_cast<u32>(rng_() % len);
				tb::flash::flip_bits(dev, blk, at, 0x40);
				tb::flash::flip_bits(dev, blk + 32, at, 0x40);
				model_.lose(dev, n);
				if (std::getenv("UCFG_MODEL_VERBOSE"))
					std::fprintf(stderr, "damage: both copies of '%s' dev %u (blk %u off %u)\n",
						     n.c_str(), dev, blk, at);
				stats_.losses++;
				tally().faults["double-copy-damage"]++;
				dirty_[dev] = true;
				return;
			}
		}
	}
	if (cfg_.rot_rate <= 0 || coin(rng_) >= cfg_.rot_rate)
		return;
	// One copy only: the other copy of that block must be intact, else
	// the loss would be the hardware's, not the store's. Blocks 1 and 33
	// hold nothing.
	g_rots.erase(std::remove_if(g_rots.begin(), g_rots.end(),
		[](const Rot &r) {
			tb::flash::Image a = tb::flash::block(r.dev, r.blk);
			tb::flash::Image b = tb::flash::block(r.dev, twin(r.blk));
			return std::all_of(r.offs.begin(), r.offs.end(),
					   [&](u32 o) { return a[o] == b[o]; });
		}), g_rots.end());
	Rot r{dev, static_cast<u32>(rng_() % 64), {}};
	// Half the damage lands in a live item's slot, in one copy: that is
	// where a write that copies a block from one copy to the other could
	// spread it.
	std::vector<std::string> live;
	if (rng_() % 2)
		for (const std::string &n : model_.names(dev))
			if (!find_static(n) && !model_.lost(dev, n))
				live.push_back(n);
	u32 sblk, soff, slen;
	bool in_slot = !live.empty() &&
		       find_slot(dev, live[rng_() % live.size()], &sblk, &soff, &slen) &&
		       slen > 0;
	if (in_slot)
		r.blk = rng_() % 2 ? sblk : sblk + 32;
	bool twin_damaged = std::any_of(g_rots.begin(), g_rots.end(),
		[&](const Rot &o) { return o.dev == r.dev && o.blk == twin(r.blk); });
	if (twin_damaged || r.blk == 1 || r.blk == 33)
		return;
	// A single bit, or up to eight bytes anywhere in the block.
	u32 bytes = rng_() % 2 ? 1 : 1 + static_cast<u32>(rng_() % 8);
	for (u32 k = 0; k < bytes; k++) {
		r.offs.push_back(in_slot ? soff + static_cast<u32>(rng_() % slen) :
				 static_cast<u32>(rng_() % 65536));
		tb::flash::flip_bits(r.dev, r.blk, r.offs.back(),
				     static_cast<std::uint8_t>(bytes == 1 ? 1u << (rng_() % 8) :
							       1 + rng_() % 255));
	}
	if (std::getenv("UCFG_MODEL_VERBOSE"))
		std::fprintf(stderr, "damage: %u bytes of dev %u blk %u\n", bytes, dev, r.blk);
	g_rots.push_back(r);
	stats_.rots++;
	tally().faults[bytes == 1 ? "bit-flip-at-rest" : "multi-byte-damage-at-rest"]++;
	dirty_[dev] = true;
}

void Driver::prefill()
{
	for (u32 i = 0; i < cfg_.prefill; i++) {
		std::string n = "pre." + std::to_string(i);
		Bytes v = random_value(1 + static_cast<u32>(rng_() % 48));
		if (store::set(0, n, v) == 0)
			model_.put(0, n, v);
		pool_.push_back(n);
	}
}

std::string Driver::step(u32 i)
{
	std::uniform_real_distribution<double> coin(0.0, 1.0);
	// A prefilled table is on device 0: work mostly there.
	u32 dev = static_cast<u32>(rng_() % (cfg_.prefill ? 4 : 2)) == 1;
	std::string name = random_name();
	const StaticItem *s = find_static(name);
	u32 pick = static_cast<u32>(rng_() % 100);
	Via via = (cfg_.kernel_api && name.size() < 32 && rng_() % 2) ?
			  Via::KernelApi : Via::Ioctl;
	std::ostringstream where;
	where << "seed " << cfg_.seed << " step " << i << ": ";

	if (dirty_[dev] && check_flash(dev).empty())
		dirty_[dev] = false;
	if (!dirty_[dev])
		rot(dev);

	enum { GET, SET, CLEAR } op = pick < 35 ? GET : pick < 80 ? SET : CLEAR;
	Value newv;
	std::function<int()> run;
	if (op == GET) {
		Result r = store::get(dev, name, via);
		stats_.ops++;
		tally().ops++;
		std::string e = model_.observe(dev, name, r, check_flash(dev).empty());
		return e.empty() ? "" : where.str() + "get: " + e;
	}
	if (op == SET) {
		u32 len;
		if (s) {
			len = s->len;
		} else {
			// Mostly small values, a share of large ones (up to
			// the largest, which is common) to fill blocks, move
			// items and force rebuilds.
			u32 band = static_cast<u32>(rng_() % 100);
			if (band < cfg_.big_percent)
				len = band % 3 ? 4097 + static_cast<u32>(rng_() % 28672) : 32768;
			else
				len = 1 + static_cast<u32>(rng_() % (band % 3 ? 256 : 4096));
			len = std::min(len, cfg_.max_size);
			// Rewrites in place: a third of the writes to a stored
			// item keep its length (and a few its very bytes).
			std::vector<Value> now = model_.allowed(dev, name);
			if (now.size() == 1 && now[0] && !now[0]->empty() &&
			    rng_() % 3 == 0)
				len = static_cast<u32>(now[0]->size());
		}
		newv = random_value(len);
		if (!s) {
			std::vector<Value> now = model_.allowed(dev, name);
			if (now.size() == 1 && now[0] && now[0]->size() == len &&
			    rng_() % 8 == 0)
				newv = now[0];
		}
		Bytes v = *newv;
		run = [=]() { return store::set(dev, name, v, via); };
	} else {
		newv = std::nullopt;
		run = [=]() { return store::clear(dev, name, via); };
	}

	Fault f;
	// One fault at a time: the store promises to survive a single fault
	// on a device whose copies agree. A second fault before both copies
	// agree again can take away the copy the first one left (for example
	// a torn backup content write, then a damaged main head, brings back
	// the backup head whose slot is gone); that is outside the promise.
	if (!dirty_[dev] && cfg_.fault_rate > 0 &&
	    coin(rng_) < cfg_.fault_rate) {
		Cost c = measure([&]() { (void)run(); });
		static const FaultKind kinds[] = {
			FaultKind::PowerCut, FaultKind::PowerCutTorn,
			FaultKind::TornWrite, FaultKind::SilentTear,
			FaultKind::WriteError, FaultKind::ReadError,
			FaultKind::CorruptWrite, FaultKind::AllocFail};
		f.kind = kinds[rng_() % 8];
		u32 span = f.kind == FaultKind::ReadError ? c.reads :
			   f.kind == FaultKind::AllocFail ? c.allocs : c.writes;
		if (span == 0)
			f.kind = FaultKind::None;
		else
			f.nth = 1 + static_cast<u32>(rng_() % span);
		f.torn_bytes = static_cast<u32>(rng_() % 65536);
		f.fill = rng_() % 2 ? tb::flash::TearFill::OldBytes :
				      tb::flash::TearFill::Erased;
	}

	const std::size_t rb = rebuilds_logged();
	tb::flash::mark();
	arm(f);
	int rc = run();
	// A power cut is followed by a reboot: power back, nothing armed. The
	// store keeps no copy of the flash in memory, so this is all a fresh
	// start would change.
	disarm();
	stats_.ops++;
	tally().ops++;
	tally().rebuilds += static_cast<u32>(rebuilds_logged() - rb);
	if (std::getenv("UCFG_MODEL_VERBOSE"))
		std::fprintf(stderr, "step %u: %s '%s' dev %u len %zu via %s fault %s@%u/%u -> %d\n   trace: %s\n",
			     i, op == SET ? "set" : "clear", name.c_str(), dev,
			     newv ? newv->size() : 0,
			     via == Via::KernelApi ? "kapi" : "ioctl",
			     kind_name(f.kind), f.nth, f.torn_bytes, rc,
			     tb::flash::trace_str_since_mark(dev).c_str());

	std::string what = std::string(op == SET ? "set" : "clear") + " '" +
			   name + "' dev " + std::to_string(dev) +
			   (via == Via::KernelApi ? " (kernel api)" : " (ioctl)");
	if (f.kind != FaultKind::None) {
		stats_.faults++;
		stats_.faults_by_kind[kind_name(f.kind)]++;
		tally().faults[kind_name(f.kind)]++;
		dirty_[dev] = true;
		if (op == CLEAR && !s)
			model_.maybe_cleared(dev, name);
		else
			model_.maybe(dev, name, newv);
		for (u32 d = 0; d < 2; d++) {
			std::string e = check_all(model_, d);
			if (!e.empty())
				return where.str() + what + " with " +
				       kind_name(f.kind) + " at " +
				       std::to_string(f.nth) + ": " + e;
		}
		return "";
	}

	std::vector<Value> before = model_.allowed(dev, name);
	// A lost item's record may or may not be listed still (a sync of its
	// block drops it): it may clear as present or as absent.
	bool lost = model_.lost(dev, name);
	bool may_be_absent = lost || std::find(before.begin(), before.end(),
					       Value{}) != before.end();
	bool may_be_present = lost || std::any_of(before.begin(), before.end(),
		[](const Value &v) { return v.has_value(); });
	if (op == CLEAR && !s && rc == -ENOENT && may_be_absent) {
		model_.absent(dev, name);
	} else if (op == CLEAR && !s && rc == 0 && !may_be_present) {
		return where.str() + what + ": cleared an item never stored";
	} else if (rc == -ENOSPC && op == SET && !s) {
		stats_.nospace++;
		std::size_t need = model_.dynamic_bytes(dev) + newv->size() + 32;
		if (need < kCapacity * 4 / 10 && model_.dynamic_count(dev) < 1000)
			return where.str() + what + ": -ENOSPC with " +
			       std::to_string(need) + " bytes in use";
	} else if (rc != 0) {
		return where.str() + what + ": rc=" + std::to_string(rc);
	} else {
		model_.put(dev, name, newv);
	}
	Result r = store::get(dev, name, Via::Ioctl);
	std::string flash = check_flash(dev);
	std::string e = model_.observe(dev, name, r, flash.empty());
	if (!e.empty())
		return where.str() + what + " then get: " + e;
	// A device whose copies agreed before a fault-free write must still
	// agree after it.
	if (g_rots.empty() && !flash.empty() && !dirty_[dev])
		return where.str() + what + ": flash: " + flash;
	dirty_[dev] = !flash.empty();
	return "";
}

std::string Driver::run()
{
	std::string e;

	store::become_daemon();
	prefill();
	for (u32 i = 0; i < cfg_.steps && e.empty(); i++) {
		e = step(i);
		for (u32 d = 0; d < 2 && e.empty() && cfg_.check_every_step; d++)
			e = check_all(model_, d);
	}
	for (u32 d = 0; d < 2 && e.empty(); d++) {
		e = check_all(model_, d);
		if (!e.empty())
			e = "seed " + std::to_string(cfg_.seed) + " final: " + e;
	}
	tally().runs++;
	if (!e.empty())
		tally().failures++;
	return e;
}

} // namespace model
