// SPDX-License-Identifier: GPL-2.0
//
// libFuzzer target over the item command of /dev/user_config: random
// request records from random callers, with a random device count and a
// random flash fault, on a device that may hold items, the head damaged
// anywhere. Whatever comes in, the entry must not crash, leak, leave a lock
// held, misuse the kernel API or return something outside its documented
// results.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>
#include <set>

#include "oracle.h"

extern "C" {
#include "uapi/user_cfg.h"
int devdrv_config_ioctl(struct file *file, unsigned int cmd, unsigned long arg);
}

namespace {

// What an item request may answer: 0, the negative errors of the store,
// or (never in this world of good user memory) a count of bytes not copied.
const std::set<int> kResults = {0, -EINVAL, -ENOMEM, -EACCES, -ENOENT, -ENODEV,
				-ENOSPC, -ENXIO, -EDOM, -ENODATA};

[[noreturn]] void fail(const std::string &what)
{
	std::fprintf(stderr, "fuzz_ioctl: %s\n%s\n", what.c_str(), tb::log::dump(20).c_str());
	std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	namespace fl = tb::flash;
	FuzzedDataProvider in(data, size);
	tb::reset();
	tb::task::set(tb::task::daemon());
	if (in.ConsumeBool()) {
		ucfg::set(0, "ssh_status", {1});
		ucfg::set(0, "dyn_a", ucfg::Bytes(in.ConsumeIntegralInRange<int>(1, 300), 7));
		ucfg::set(0, "dyn_b", ucfg::Bytes(50, 8));
	}
	for (int i = in.ConsumeIntegralInRange<int>(0, 3); i > 0; i--)
		fl::at(0, in.ConsumeBool() ? 0 : 2)[in.ConsumeIntegral<std::uint16_t>()] ^=
			in.ConsumeIntegral<std::uint8_t>();
	tb::ctl::set(in.ConsumeProbability<float>() > 0.1f, in.ConsumeIntegralInRange<int>(0, 3));
	tb::task::Spec who = tb::task::daemon();
	who.uid = in.PickValueInArray({1101u, 1000u, 0u});
	who.admin = in.ConsumeBool();
	who.host_exe = in.ConsumeProbability<float>() > 0.1f;
	tb::task::set(who);
	const auto fault = static_cast<fl::Fault>(in.ConsumeIntegralInRange<int>(0, 7));
	fl::arm(fault, in.ConsumeIntegralInRange<int>(1, 12), in.ConsumeIntegral<std::uint16_t>());
	tb::alloc::fail_nth(in.ConsumeBool() ? in.ConsumeIntegralInRange<int>(1, 30) : 0);

	user_cfg_para p{};
	p.device_id = in.ConsumeIntegralInRange<int>(0, 4);
	p.cmd = in.ConsumeIntegralInRange<int>(0, 3);
	p.cfg_index = in.ConsumeIntegral<int>();
	std::string name = in.ConsumeBool() ? in.PickValueInArray<std::string>({"ssh_status",
				"usershadow", "cpu_num_cfg", "dyn_a", "dyn_b"})
					    : in.ConsumeBytesAsString(32);
	std::memcpy(p.name, name.data(), std::min<std::size_t>(name.size(), 32));
	ucfg::Bytes buf = in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange<int>(0, 33000));
	p.buf_size = in.ConsumeBool() ? static_cast<std::uint32_t>(buf.size())
				      : in.ConsumeIntegralInRange<std::uint32_t>(0, 40000);
	buf.resize(std::max<std::size_t>(buf.size(), p.buf_size) + 1);
	p.buf = in.ConsumeProbability<float>() > 0.05f ? reinterpret_cast<std::uintptr_t>(buf.data())
							 : 0;
	struct file f {};
	int rc = devdrv_config_ioctl(&f, USER_CFG_IOC_ITEM, reinterpret_cast<unsigned long>(&p));
	fl::reboot();
	tb::alloc::fail_nth(0);
	if (!kResults.count(rc))
		fail("result " + std::to_string(rc));
	if (std::string why = tb::problems(); !why.empty())
		fail(why);
	return 0;
}
