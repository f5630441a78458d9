// SPDX-License-Identifier: GPL-2.0
//
// Small helpers shared by the tests of the entry points: building request
// records, calling the ioctl entry as user space would, and the callers
// the tests play (the trusted daemon and its impostors).
#ifndef UCFG_TEST_ENTRY_HELPERS_H
#define UCFG_TEST_ENTRY_HELPERS_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "testbed.h"

extern "C" {
#include <linux/fs.h>
#include "access/access.h"
#include "drv_user_cfg.h"
#include "store/store.h"
}

namespace entry {

using Bytes = std::vector<std::uint8_t>;

// Catalogue facts as documented: index, value length, access class.
constexpr int kUsershadow = 4;		// class 0: CAP_SYS_ADMIN only
constexpr std::uint32_t kUsershadowLen = 2048;
constexpr int kSshStatus = 5;		// class 1: whitelist for writes
constexpr int kP2pMemCfg = 1;
constexpr int kCpuNumCfg = 0;

inline user_cfg_para para(std::uint32_t dev, std::uint32_t cmd,
			  const std::string &name, void *buf = nullptr,
			  std::uint32_t size = 0)
{
	user_cfg_para p;
	std::memset(&p, 0, sizeof(p));
	p.device_id = dev;
	p.cmd = cmd;
	std::memcpy(p.name, name.data(), std::min<std::size_t>(name.size(), 32));
	p.buf_size = size;
	p.buf = reinterpret_cast<std::uintptr_t>(buf);
	return p;
}

inline int ioctl(const void *arg)
{
	struct file f;
	std::memset(&f, 0, sizeof(f));
	return devdrv_config_ioctl(&f, USER_CFG_IOC_ITEM,
				   reinterpret_cast<unsigned long>(arg));
}

// The callers.
inline tb::task::Spec task(const std::string &exe, std::uint32_t uid,
			   bool cap, const std::string &comm = "")
{
	tb::task::Spec s;
	s.exe = exe;
	s.uid = uid;
	s.cap_sys_admin = cap;
	s.comm = comm.empty() ? exe.substr(exe.rfind('/') + 1) : comm;
	return s;
}
inline tb::task::Spec daemon(bool cap = false)
{
	return task("/var/devmgr_daemon", 1101, cap);
}

// Runs op while the calling thread holds the flash lock of dev: a call that
// tries to take the lock itself shows up as a violation (the test bed's
// mutexes refuse recursion), so "no violation" proves it took no lock.
template <typename Op> auto with_lock_held(std::uint32_t dev, Op op)
{
	devdrv_config_mutex_lock(dev);
	auto r = op();
	devdrv_config_mutex_unlock(dev);
	return r;
}

} // namespace entry

#endif
