// SPDX-License-Identifier: GPL-2.0
//
// The tests' own view of the store (see oracle.h): the catalogue and the
// format as documented, and the two entry points as callers use them.
#include "oracle.h"

#include <algorithm>
#include <cstring>

extern "C" {
#include "drv_user_cfg.h"
#include "uapi/user_cfg.h"
int devdrv_config_ioctl(struct file *file, unsigned int cmd, unsigned long arg);
int devdrv_config_view(u32 dev_id, char *buf, u32 size);
}

namespace ucfg {

const Static kStatic[6] = {
	{"cpu_num_cfg", 16, {3, 5, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, 0},
	{"p2p_mem_cfg", 4, {4, 0, 0, 0}, 17},
	{"ddr_ecc_enable", 1, {1}, 22},
	{"ccpu_usr_cert_hash", 1024, Bytes(1024, 0), 24},
	{"usershadow", 2048, Bytes(2048, 0), 1049},
	{"ssh_status", 1, {0}, 3098},
};

const Static *find_static(const std::string &name)
{
	for (const Static &s : kStatic)
		if (name == s.name)
			return &s;
	return nullptr;
}

Bytes sha256(const u8 *p, std::size_t n)
{
	Bytes out(32);
	SHA256(p, n, out.data());
	return out;
}

const Head *head(u32 dev)
{
	for (u32 blk : {0u, 32u}) {
		const auto *h = reinterpret_cast<const Head *>(tb::flash::at(dev, blk));
		if (h->valid_flag == 0x8a7b6c5d &&
		    sha256(tb::flash::at(dev, blk), 65500) == Bytes(h->check, h->check + 32))
			return h;
	}
	return nullptr;
}

std::string view_text(u32 dev)
{
	std::string text(256 * 1024, '\0');
	int n = devdrv_config_view(dev, text.data(), static_cast<u32>(text.size()));
	text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
	return text;
}

Bytes pattern(u32 n, u32 seed)
{
	Bytes b(n);
	std::uint32_t x = seed * 2654435761u + 1;
	for (auto &c : b) {
		x ^= x << 13, x ^= x >> 17, x ^= x << 5;
		c = static_cast<u8>(x);
	}
	return b;
}

std::string show(const Res &r)
{
	std::string s = "rc " + std::to_string(r.rc);
	if (r.rc == 0)
		s += ", " + std::to_string(r.data.size()) + " bytes " +
		     (r.data.empty() ? "" : std::to_string(r.data[0]) + "...");
	return s;
}

int ioctl(u32 dev, u32 cmd, const std::string &name, u8 *buf, u32 *size)
{
	user_cfg_para p{};
	p.device_id = dev;
	p.cmd = cmd;
	p.cfg_index = 3;	// ignored by the entry
	std::memcpy(p.name, name.data(), std::min<std::size_t>(name.size(), 32));
	p.buf_size = *size;
	p.buf = reinterpret_cast<std::uintptr_t>(buf);
	struct file f {};
	int rc = devdrv_config_ioctl(&f, USER_CFG_IOC_ITEM, reinterpret_cast<unsigned long>(&p));
	*size = p.buf_size;
	return rc;
}

Res get(u32 dev, const std::string &name, u32 size, Via via)
{
	Res r;
	Bytes buf(size ? size : 1);
	u32 n = size;
	if (via == Via::Ioctl)
		r.rc = ioctl(dev, USER_CFG_CMD_GET, name, buf.data(), &n);
	else
		r.rc = hal_kernel_get_user_config(dev, name.c_str(), buf.data(), size, &n);
	if (r.rc == 0)
		r.data.assign(buf.begin(), buf.begin() + std::min<u32>(n, size));
	return r;
}

int set(u32 dev, const std::string &name, const Bytes &v, Via via)
{
	Bytes buf = v;
	u32 n = static_cast<u32>(v.size());
	if (via == Via::Kernel)
		return hal_kernel_set_user_config(dev, name.c_str(), buf.data(), n);
	return ioctl(dev, USER_CFG_CMD_SET, name, buf.data(), &n);
}

int clear(u32 dev, const std::string &name, Via via)
{
	const Static *s = find_static(name);
	if (via == Via::Kernel && s)
		return devdrv_config_clear_user_item(dev, static_cast<int>(s - kStatic));
	u32 n = 0;
	return ioctl(dev, USER_CFG_CMD_CLEAR, name, nullptr, &n);
}

} // namespace ucfg
