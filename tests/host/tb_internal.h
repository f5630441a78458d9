// SPDX-License-Identifier: GPL-2.0
//
// Shared pieces of the test-bed implementation (not for tests).
#ifndef UCFG_TB_INTERNAL_H
#define UCFG_TB_INTERNAL_H

#include <cstdint>
#include <string>

namespace tb::detail {

// A one-shot or sticky fault: hit() is called once per eligible call and
// says whether that call must fail.
struct Schedule {
	bool armed = false;
	bool sticky = false;
	bool fired = false;
	std::uint32_t nth = 0;
	std::uint32_t seen = 0;
	int code = 0;

	void arm(std::uint32_t n, int c, bool s)
	{
		armed = n != 0;
		sticky = s;
		fired = false;
		nth = n;
		seen = 0;
		code = c;
	}
	void disarm() { *this = Schedule(); }
	bool hit()
	{
		if (!armed)
			return false;
		++seen;
		if (seen == nth || (sticky && seen > nth)) {
			fired = true;
			if (!sticky)
				armed = false;
			return true;
		}
		return false;
	}
};

void add_violation(const std::string &what);

// Per-subsystem resets, called by tb::reset().
void reset_flash();
void reset_ctl();
void reset_regs();
void reset_alloc();
void reset_crypto();
void reset_user();
void reset_task();
void reset_log();
void reset_delay();
void reset_files();
void reset_locks();

} // namespace tb::detail

#endif
