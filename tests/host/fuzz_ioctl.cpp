// SPDX-License-Identifier: GPL-2.0
//
// libFuzzer target over the item command of /dev/user_config: a random
// request record in random user memory (parts of it unmapped or not user
// memory at all), a random caller, a random device count and a random
// flash fault, on a device that may already hold items. Whatever comes in,
// the entry must not crash, leak, leave a lock held, break a kernel-API
// contract or return something outside its documented results.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testbed.h"

extern "C" {
#include <linux/fs.h>
#include "access/access.h"
#include "drv_user_cfg.h"
}

namespace {

[[noreturn]] void fail(const std::string &what)
{
	std::fprintf(stderr, "fuzz_ioctl: %s\n%s\n", what.c_str(),
		     tb::log::dump(20).c_str());
	std::abort();
}

const char *const kNames[] = {
	"cpu_num_cfg", "p2p_mem_cfg", "ddr_ecc_enable", "ccpu_usr_cert_hash",
	"usershadow", "ssh_status", "dyn_a", "dyn_b", "",
};

tb::task::Spec pick_task(FuzzedDataProvider &in)
{
	tb::task::Spec s;
	switch (in.ConsumeIntegralInRange<int>(0, 4)) {
	case 0:
		s.exe = "/var/devmgr_daemon";
		s.comm = "devmgr_daemon";
		s.uid = 1101;
		break;
	case 1:
		s.exe = "/var/sched_daemon";
		s.uid = 1000;
		break;
	case 2:
		s.exe = "/tmp/devmgr_daemon";
		s.uid = 1101;
		break;
	default:
		break;	// the default test task, root
	}
	s.cap_sys_admin = in.ConsumeBool();
	s.exe_deleted = in.ConsumeProbability<float>() < 0.05f;
	s.no_active_mm = in.ConsumeProbability<float>() < 0.05f;
	s.d_path_error = in.ConsumeProbability<float>() < 0.05f ? -36 : 0;
	return s;
}

void arm_fault(FuzzedDataProvider &in)
{
	const tb::u32 nth = in.ConsumeIntegralInRange<tb::u32>(1, 12);
	switch (in.ConsumeIntegralInRange<int>(0, 7)) {
	case 0:
		tb::flash::fail_read(nth);
		break;
	case 1:
		tb::flash::fail_write(nth);
		break;
	case 2:
		tb::flash::tear_write(nth, in.ConsumeIntegralInRange<tb::u32>(0, 65535));
		break;
	case 3:
		tb::flash::corrupt_write(nth, in.ConsumeIntegralInRange<tb::u32>(0, 65535));
		break;
	case 4:
		tb::flash::power_cut(nth);
		break;
	case 5:
		tb::alloc::fail_nth(nth);
		break;
	default:
		break;	// no fault
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	FuzzedDataProvider in(data, size);
	tb::reset();

	// A device that may already hold a static and a dynamic item.
	if (in.ConsumeBool()) {
		std::uint8_t one = 1, dyn[40] = {0};
		hal_kernel_set_user_config(0, "ssh_status", &one, 1);
		hal_kernel_set_user_config(in.ConsumeIntegralInRange<tb::u32>(0, 1), "dyn_a",
					   dyn, in.ConsumeIntegralInRange<tb::u32>(1, 40));
	}
	tb::log::clear();

	switch (in.ConsumeIntegralInRange<int>(0, 5)) {
	case 0:
		tb::ctl::set_present(false);
		break;
	case 1:
		tb::ctl::set_dev_num(in.ConsumeIntegralInRange<tb::u32>(0, 5));
		break;
	default:
		break;	// two devices
	}
	tb::task::set(pick_task(in));
	arm_fault(in);

	// User memory: the record and a data buffer, each possibly faulting.
	user_cfg_para rec;
	std::memset(&rec, 0, sizeof(rec));
	const std::vector<std::uint8_t> raw = in.ConsumeBytes<std::uint8_t>(sizeof(rec));
	if (!raw.empty())
		std::memcpy(&rec, raw.data(), raw.size());
	rec.device_id = in.ConsumeBool() ? rec.device_id % 3 : rec.device_id;
	rec.cmd = in.ConsumeBool() ? rec.cmd % 3 : rec.cmd;
	if (in.ConsumeBool()) {
		const char *n = kNames[in.ConsumeIntegralInRange<std::size_t>(0, 8)];
		std::memset(rec.name, 0, sizeof(rec.name));
		std::memcpy(rec.name, n, std::strlen(n));
	}
	const std::size_t buf_len = in.ConsumeIntegralInRange<std::size_t>(0, 40000);
	std::vector<std::uint8_t> buf(buf_len + 1);
	in.ConsumeData(buf.data(), std::min<std::size_t>(buf_len, 64));
	switch (in.ConsumeIntegralInRange<int>(0, 3)) {
	case 0:		// the buffer and a size that fits it
		rec.buf = reinterpret_cast<std::uintptr_t>(buf.data());
		rec.buf_size = static_cast<tb::u32>(buf_len);
		break;
	case 1:		// the buffer and the record's own size, capped to it
		rec.buf = reinterpret_cast<std::uintptr_t>(buf.data());
		rec.buf_size = std::min<tb::u32>(rec.buf_size, static_cast<tb::u32>(buf_len));
		break;
	case 2:		// an address in page zero: always unmapped
		rec.buf %= 4096;
		break;
	default:
		rec.buf = 0;
		break;
	}
	if (buf_len && in.ConsumeBool()) {
		const std::size_t at = in.ConsumeIntegralInRange<std::size_t>(0, buf_len - 1);
		if (in.ConsumeBool())
			tb::user::mark_unmapped(buf.data() + at, buf_len - at);
		else
			tb::user::mark_not_user(buf.data() + at, 1);
	}
	if (in.ConsumeProbability<float>() < 0.1f) {
		const std::size_t at = in.ConsumeIntegralInRange<std::size_t>(0, sizeof(rec) - 1);
		tb::user::mark_unmapped(reinterpret_cast<std::uint8_t *>(&rec) + at,
					sizeof(rec) - at);
	}

	struct file f;
	std::memset(&f, 0, sizeof(f));
	const int rc = devdrv_config_ioctl(&f, USER_CFG_IOC_ITEM,
					   reinterpret_cast<unsigned long>(&rec));

	// Documented results: 0, a negative error number, or the positive
	// count of bytes a user copy left behind (never more than asked).
	static const int kErrors[] = {-EINVAL, -ENOMEM, -EACCES, -ENOENT, -ENODEV,
				      -ENOSPC, -ENXIO, -EDOM, -ENODATA};
	bool known = rc >= 0 && rc <= 32768;
	for (int e : kErrors)
		known |= rc == e;
	if (!known)
		fail("unexpected result " + std::to_string(rc));
	if (tb::locks::held() != 0)
		fail("a flash lock is still held");
	tb::user::clear();
	tb::flash::clear_faults();
	tb::flash::reboot();
	tb::alloc::clear_faults();
	const auto v = tb::take_violations();
	if (!v.empty())
		fail("violation: " + v.front());
	const auto l = tb::leaks();
	if (!l.empty())
		fail("leak: " + l.front());
	return 0;
}
