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
	if (a.empty())
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
	items_.erase({dev, name});
}

std::string Model::observe(u32 dev, const std::string &name, const Result &r,
			   bool settle)
{
	const StaticItem *s = find_static(name);
	std::vector<Value> allow = allowed(dev, name);

	for (const Value &v : allow) {
		bool match;
		if (s) {
			const Bytes &want = v ? *v : s->dflt;
			match = r.rc == 0 && r.data == want;
		} else {
			match = v ? (r.rc == 0 && r.data == *v) : r.rc == -ENOENT;
		}
		if (match) {
			if (settle)
				items_[{dev, name}] = {v};
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
		if (settle)
			items_[{dev, name}] = {r.data};
		return "";
	}
	std::ostringstream os;
	os << "dev " << dev << " item '" << name << "': read rc=" << r.rc;
	if (r.rc == 0)
		os << " data=" << hex_prefix(r.data);
	os << ", allowed:";
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
	for (const std::string &name : m.names(dev)) {
		Result r = store::get(dev, name, via);
		std::string e = m.observe(dev, name, r, check_flash(dev).empty());
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
namespace {

// Bytes of dynamic content a device can hold: 30 blocks of 65,535 bytes.
constexpr std::size_t kCapacity = 30u * 65535u;

struct Rot {
	u32 dev, blk, off;
};
std::vector<Rot> g_rots;

u32 twin(u32 blk) { return blk < 32 ? blk + 32 : blk - 32; }

bool healed(const Rot &r)
{
	return tb::flash::block(r.dev, r.blk)[r.off] ==
	       tb::flash::block(r.dev, twin(r.blk))[r.off];
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
	return pool_[rng_() % pool_.size()];
}

Bytes Driver::random_value(u32 len)
{
	Bytes b(len);
	for (auto &x : b)
		x = static_cast<std::uint8_t>(rng_());
	return b;
}

std::string Driver::step(u32 i)
{
	std::uniform_real_distribution<double> coin(0.0, 1.0);
	u32 dev = static_cast<u32>(rng_() % 2);
	std::string name = random_name();
	const StaticItem *s = find_static(name);
	u32 pick = static_cast<u32>(rng_() % 100);
	Via via = (cfg_.kernel_api && name.size() < 32 && rng_() % 2) ?
			  Via::KernelApi : Via::Ioctl;
	std::ostringstream where;
	where << "seed " << cfg_.seed << " step " << i << ": ";

	// Bit rot at rest, in one copy only: the other copy of that block
	// must be intact, else the loss would be the hardware's, not ours.
	if (dirty_[dev] && check_flash(dev).empty())
		dirty_[dev] = false;
	if (!dirty_[dev] && cfg_.rot_rate > 0 && coin(rng_) < cfg_.rot_rate) {
		g_rots.erase(std::remove_if(g_rots.begin(), g_rots.end(), healed),
			     g_rots.end());
		Rot r{dev, static_cast<u32>(rng_() % 64),
		      static_cast<u32>(rng_() % 65536)};
		bool twin_damaged = std::any_of(g_rots.begin(), g_rots.end(),
			[&](const Rot &o) {
				return o.dev == r.dev && o.blk == twin(r.blk);
			});
		if (!twin_damaged && r.blk != 1 && r.blk != 33) {
			tb::flash::flip_bits(r.dev, r.blk, r.off,
					     static_cast<std::uint8_t>(1u << (rng_() % 8)));
			g_rots.push_back(r);
			stats_.rots++;
			dirty_[dev] = true;
		}
	}

	enum { GET, SET, CLEAR } op = pick < 35 ? GET : pick < 80 ? SET : CLEAR;
	Value newv;
	std::function<int()> run;
	if (op == GET) {
		Result r = store::get(dev, name, via);
		stats_.ops++;
		std::string e = model_.observe(dev, name, r, check_flash(dev).empty());
		return e.empty() ? "" : where.str() + "get: " + e;
	}
	if (op == SET) {
		u32 len;
		if (s) {
			len = s->len;
		} else {
			u32 band = static_cast<u32>(rng_() % 100);
			u32 hi = band < 60 ? 256 : band < 85 ? 4096 : cfg_.max_size;
			hi = std::min(hi, cfg_.max_size);
			len = 1 + static_cast<u32>(rng_() % hi);
		}
		newv = random_value(len);
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

	tb::flash::mark();
	arm(f);
	int rc = run();
	disarm();
	stats_.ops++;
	if (std::getenv("UCFG_MODEL_VERBOSE"))
		std::fprintf(stderr, "step %u: %s '%s' dev %u len %zu via %s fault %s@%u/%u -> %d\n",
			     i, op == SET ? "set" : "clear", name.c_str(), dev,
			     newv ? newv->size() : 0,
			     via == Via::KernelApi ? "kapi" : "ioctl",
			     kind_name(f.kind), f.nth, f.torn_bytes, rc);
	if (std::getenv("UCFG_MODEL_VERBOSE"))
		std::fprintf(stderr, "   trace: %s\n",
			     tb::flash::trace_str_since_mark(dev).c_str());

	std::string what = std::string(op == SET ? "set" : "clear") + " '" +
			   name + "' dev " + std::to_string(dev) +
			   (via == Via::KernelApi ? " (kernel api)" : " (ioctl)");
	if (f.kind != FaultKind::None) {
		stats_.faults++;
		stats_.faults_by_kind[kind_name(f.kind)]++;
		dirty_[dev] = true;
		if (op == CLEAR && !s)
			model_.maybe_cleared(dev, name);
		else
			model_.maybe(dev, name, newv);
		for (u32 d = 0; d < 2; d++) {
			std::string e = check_all(model_, d);
			stats_.checks++;
			if (!e.empty())
				return where.str() + what + " with " +
				       kind_name(f.kind) + " at " +
				       std::to_string(f.nth) + ": " + e;
		}
		return "";
	}

	std::vector<Value> before = model_.allowed(dev, name);
	bool may_be_absent = std::find(before.begin(), before.end(),
				       Value{}) != before.end();
	bool may_be_present = std::any_of(before.begin(), before.end(),
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
	store::become_daemon();
	for (u32 i = 0; i < cfg_.steps; i++) {
		std::string e = step(i);
		if (e.empty() && cfg_.check_every_step)
			for (u32 d = 0; d < 2 && e.empty(); d++)
				e = check_all(model_, d);
		if (!e.empty())
			return e;
	}
	for (u32 d = 0; d < 2; d++) {
		std::string e = check_all(model_, d);
		if (!e.empty())
			return "seed " + std::to_string(cfg_.seed) + " final: " + e;
	}
	return "";
}

} // namespace model
