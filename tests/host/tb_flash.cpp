// SPDX-License-Identifier: GPL-2.0
//
// Secure-flash simulator behind sec_flash_read()/sec_flash_write().
//
// Each device has only its configuration area; a transfer must be one whole,
// aligned block inside it. Faults are evaluated in the order they were armed;
// every armed fault counts every transfer it matches, and the first one that
// triggers decides what the transfer does.
#include <algorithm>
#include <cstring>
#include <mutex>

#include "tb_internal.h"
#include "testbed.h"

extern "C" {
#include "common/siblings.h"
}

namespace tb::flash {
namespace {

enum class Kind { FailRead, FailWrite, Tear, Corrupt, PowerCut };

struct Fault {
	Kind kind;
	detail::Schedule when;
	Where where;
	u32 new_bytes = 0;	// Tear, PowerCut (torn)
	bool torn = false;	// PowerCut
	TearFill fill = TearFill::OldBytes;
	bool silent = false;	// Tear
	u32 offset = 0;		// Corrupt
	u8 mask = 0;		// Corrupt
};

struct State {
	std::mutex lock;
	std::vector<u8> area[kDevices];
	u32 reads[kDevices][kBlocks];
	u32 writes[kDevices][kBlocks];
	u32 total_reads = 0, total_writes = 0;
	u32 mark_reads = 0, mark_writes = 0;
	std::size_t mark_trace = 0;
	std::vector<Transfer> trace;
	std::vector<Fault> faults;
	bool powered = true;
};

State &st()
{
	static State s;
	return s;
}

bool valid(u32 dev, u32 blk)
{
	if (dev < kDevices && blk < kBlocks)
		return true;
	ADD_FAILURE() << "tb::flash: no block " << blk << " on device " << dev;
	return false;
}

u8 *at(State &s, u32 dev, u32 blk)
{
	return s.area[dev].data() + static_cast<std::size_t>(blk) * kBlockSize;
}

bool matches(const Where &w, u32 dev, u32 blk)
{
	return (w.dev < 0 || static_cast<u32>(w.dev) == dev) &&
	       (w.blk < 0 || static_cast<u32>(w.blk) == blk);
}

std::string trace_text(const std::vector<Transfer> &t, std::size_t from, u32 dev)
{
	std::string out;
	for (std::size_t i = from; i < t.size(); i++) {
		if (t[i].dev != dev)
			continue;
		if (!out.empty())
			out += ' ';
		out += t[i].write ? 'W' : 'R';
		out += t[i].blk == ~0u ? std::string("?") : std::to_string(t[i].blk);
		if (t[i].ret != 0)
			out += '!';
	}
	return out;
}

void arm(Fault f)
{
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.faults.push_back(f);
}

// The first armed fault of the transfer's kind that triggers, or nullptr.
Fault *triggered(State &s, bool write, u32 dev, u32 blk)
{
	Fault *first = nullptr;
	for (Fault &f : s.faults) {
		bool write_fault = f.kind != Kind::FailRead;
		if (write_fault != write || !matches(f.where, dev, blk))
			continue;
		if (f.when.hit() && !first)
			first = &f;
	}
	return first;
}

void store_torn(u8 *dst, const u8 *src, u32 new_bytes, TearFill fill)
{
	new_bytes = std::min(new_bytes, kBlockSize);
	std::memcpy(dst, src, new_bytes);
	if (fill == TearFill::Erased)
		std::memset(dst + new_bytes, 0xff, kBlockSize - new_bytes);
}

int transfer(bool write, u32 dev, u32 offset, u8 *buf, u32 len)
{
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	Transfer t{write, dev, ~0u, 0};

	if (write)
		s.total_writes++;
	else
		s.total_reads++;

	if (dev >= kDevices) {
		t.ret = -ENODEV;
		s.trace.push_back(t);
		return t.ret;
	}
	const u32 base = kBaseBlock * kBlockSize;
	if (!buf || len != kBlockSize || offset % kBlockSize != 0 || offset < base ||
	    (offset - base) / kBlockSize >= kBlocks) {
		char what[160];
		std::snprintf(what, sizeof(what),
			      "sec_flash_%s(dev=%u, offset=0x%x, buf=%p, len=%u): not one "
			      "whole block of the configuration area",
			      write ? "write" : "read", dev, offset,
			      static_cast<void *>(buf), len);
		detail::add_violation(what);
		t.ret = -EINVAL;
		s.trace.push_back(t);
		return t.ret;
	}
	const u32 blk = (offset - base) / kBlockSize;
	t.blk = blk;
	(write ? s.writes : s.reads)[dev][blk]++;
	u8 *cell = at(s, dev, blk);

	if (!s.powered) {
		t.ret = -EIO;
	} else if (Fault *f = triggered(s, write, dev, blk)) {
		switch (f->kind) {
		case Kind::FailRead:
		case Kind::FailWrite:
			t.ret = f->when.code;
			break;
		case Kind::Tear:
			store_torn(cell, buf, f->new_bytes, f->fill);
			t.ret = f->silent ? 0 : f->when.code;
			break;
		case Kind::Corrupt:
			std::memcpy(cell, buf, kBlockSize);
			cell[f->offset % kBlockSize] ^= f->mask;
			break;
		case Kind::PowerCut:
			if (f->torn)
				store_torn(cell, buf, f->new_bytes, f->fill);
			s.powered = false;
			t.ret = -EIO;
			break;
		}
	} else if (write) {
		std::memcpy(cell, buf, kBlockSize);
	} else {
		std::memcpy(buf, cell, kBlockSize);
	}
	s.trace.push_back(t);
	return t.ret;
}

} // namespace

Image block(u32 dev, u32 blk)
{
	if (!valid(dev, blk))
		return Image(kBlockSize, 0xff);
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	const u8 *p = at(s, dev, blk);
	return Image(p, p + kBlockSize);
}

void load_block(u32 dev, u32 blk, const void *data)
{
	if (!valid(dev, blk))
		return;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	std::memcpy(at(s, dev, blk), data, kBlockSize);
}

void load_block(u32 dev, u32 blk, const Image &image)
{
	if (image.size() != kBlockSize) {
		ADD_FAILURE() << "tb::flash::load_block: image of " << image.size()
			      << " bytes";
		return;
	}
	load_block(dev, blk, image.data());
}

void fill_block(u32 dev, u32 blk, u8 value)
{
	load_block(dev, blk, Image(kBlockSize, value));
}

Image area(u32 dev)
{
	if (!valid(dev, 0))
		return Image();
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	return s.area[dev];
}

void load_area(u32 dev, const Image &a)
{
	if (!valid(dev, 0))
		return;
	if (a.size() != kAreaSize) {
		ADD_FAILURE() << "tb::flash::load_area: " << a.size() << " bytes";
		return;
	}
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.area[dev] = a;
}

void flip_bits(u32 dev, u32 blk, u32 offset, u8 mask)
{
	if (!valid(dev, blk) || offset >= kBlockSize) {
		ADD_FAILURE() << "tb::flash::flip_bits: offset " << offset;
		return;
	}
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	at(s, dev, blk)[offset] ^= mask;
}

u32 reads(u32 dev, u32 blk)
{
	if (!valid(dev, blk))
		return 0;
	std::lock_guard<std::mutex> g(st().lock);
	return st().reads[dev][blk];
}

u32 writes(u32 dev, u32 blk)
{
	if (!valid(dev, blk))
		return 0;
	std::lock_guard<std::mutex> g(st().lock);
	return st().writes[dev][blk];
}

u32 total_reads()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().total_reads;
}

u32 total_writes()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().total_writes;
}

std::vector<Transfer> trace()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().trace;
}

std::string trace_str(u32 dev)
{
	std::lock_guard<std::mutex> g(st().lock);
	return trace_text(st().trace, 0, dev);
}

void clear_trace()
{
	std::lock_guard<std::mutex> g(st().lock);
	st().trace.clear();
	st().mark_trace = 0;
}

void mark()
{
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	s.mark_reads = s.total_reads;
	s.mark_writes = s.total_writes;
	s.mark_trace = s.trace.size();
}

u32 reads_since_mark()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().total_reads - st().mark_reads;
}

u32 writes_since_mark()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().total_writes - st().mark_writes;
}

std::string trace_str_since_mark(u32 dev)
{
	std::lock_guard<std::mutex> g(st().lock);
	return trace_text(st().trace, st().mark_trace, dev);
}

void fail_read(u32 nth, int code, Where where, bool sticky)
{
	Fault f{Kind::FailRead, {}, where};
	f.when.arm(nth, code, sticky);
	arm(f);
}

void fail_write(u32 nth, int code, Where where, bool sticky)
{
	Fault f{Kind::FailWrite, {}, where};
	f.when.arm(nth, code, sticky);
	arm(f);
}

void tear_write(u32 nth, u32 new_bytes, TearFill fill, bool silent, int code,
		Where where)
{
	Fault f{Kind::Tear, {}, where};
	f.when.arm(nth, code, false);
	f.new_bytes = new_bytes;
	f.fill = fill;
	f.silent = silent;
	arm(f);
}

void corrupt_write(u32 nth, u32 offset, u8 xor_mask, Where where)
{
	Fault f{Kind::Corrupt, {}, where};
	f.when.arm(nth, 0, false);
	f.offset = offset;
	f.mask = xor_mask ? xor_mask : 0x01;
	arm(f);
}

void power_cut(u32 nth_write, std::optional<u32> torn_bytes, TearFill fill)
{
	Fault f{Kind::PowerCut, {}, Where{}};
	f.when.arm(nth_write, -EIO, false);
	f.torn = torn_bytes.has_value();
	f.new_bytes = torn_bytes.value_or(0);
	f.fill = fill;
	arm(f);
}

void reboot()
{
	std::lock_guard<std::mutex> g(st().lock);
	st().powered = true;
}

bool powered()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().powered;
}

void clear_faults()
{
	std::lock_guard<std::mutex> g(st().lock);
	st().faults.clear();
}

u32 faults_fired()
{
	std::lock_guard<std::mutex> g(st().lock);
	return static_cast<u32>(std::count_if(st().faults.begin(), st().faults.end(),
					      [](const Fault &f) { return f.when.fired; }));
}

u32 faults_pending()
{
	std::lock_guard<std::mutex> g(st().lock);
	return static_cast<u32>(std::count_if(st().faults.begin(), st().faults.end(),
					      [](const Fault &f) { return !f.when.fired; }));
}

} // namespace tb::flash

void tb::detail::reset_flash()
{
	using namespace tb::flash;
	State &s = st();
	std::lock_guard<std::mutex> g(s.lock);
	for (auto &a : s.area)
		a.assign(kAreaSize, 0xff);
	std::memset(s.reads, 0, sizeof(s.reads));
	std::memset(s.writes, 0, sizeof(s.writes));
	s.total_reads = s.total_writes = 0;
	s.mark_reads = s.mark_writes = 0;
	s.mark_trace = 0;
	s.trace.clear();
	s.faults.clear();
	s.powered = true;
}

extern "C" int sec_flash_read(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	return tb::flash::transfer(false, dev_id, offset, buf, len);
}

extern "C" int sec_flash_write(u32 dev_id, u32 offset, u8 *buf, u32 len)
{
	return tb::flash::transfer(true, dev_id, offset, buf, len);
}
