// SPDX-License-Identifier: GPL-2.0
//
// The test bed's world: reset, contract violations, leak checks, fixture.
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <sstream>

#include "tb_internal.h"
#include "testbed.h"
#include "ucfg_tb/shim.h"

namespace tb {
namespace {

std::mutex g_violation_lock;
std::vector<std::string> g_violations;

} // namespace

void detail::add_violation(const std::string &what)
{
	std::lock_guard<std::mutex> g(g_violation_lock);
	g_violations.push_back(what);
}

std::vector<std::string> violations()
{
	std::lock_guard<std::mutex> g(g_violation_lock);
	return g_violations;
}

std::vector<std::string> take_violations()
{
	std::lock_guard<std::mutex> g(g_violation_lock);
	std::vector<std::string> v;
	v.swap(g_violations);
	return v;
}

void reset()
{
	detail::reset_flash();
	detail::reset_ctl();
	detail::reset_regs();
	detail::reset_alloc();
	detail::reset_crypto();
	detail::reset_user();
	detail::reset_task();
	detail::reset_log();
	detail::reset_delay();
	detail::reset_files();
	detail::reset_locks();
	std::lock_guard<std::mutex> g(g_violation_lock);
	g_violations.clear();
}

std::vector<std::string> leaks()
{
	std::vector<std::string> out;
	auto add = [&out](bool bad, const std::string &what) {
		if (bad)
			out.push_back(what);
	};
	add(alloc::outstanding() != 0,
	    std::to_string(alloc::outstanding()) + " allocation(s) not freed (" +
		    std::to_string(alloc::outstanding_bytes()) + " bytes)");
	for (const char *name : {ctl::kGetDevNum, ctl::kGetDtsCpuCfg})
		add(ctl::refs(name) != 0, std::string("symbol ") + name + " has " +
						  std::to_string(ctl::refs(name)) +
						  " reference(s) held");
	add(task::exe_refs() != 0, std::to_string(task::exe_refs()) +
					   " exe_file reference(s) not put");
	add(task::name_snapshots() != 0, std::to_string(task::name_snapshots()) +
						 " dentry name snapshot(s) not released");
	add(task::rcu_unbalanced() != 0, "rcu_read_lock section(s) left open");
	add(regs::mappings() != 0,
	    std::to_string(regs::mappings()) + " ioremap mapping(s) not unmapped");
	add(crypto::live() != 0,
	    std::to_string(crypto::live()) + " hash transform(s) not freed");
	add(files::open_count() != 0,
	    std::to_string(files::open_count()) + " file(s) not closed");
	add(locks::held() != 0,
	    std::to_string(locks::held()) + " mutex(es) still held");
	return out;
}

void Fixture::SetUp()
{
	reset();
}

void Fixture::TearDown()
{
	std::vector<std::string> v = take_violations();
	std::vector<std::string> l = leaks();
	if (v.empty() && l.empty())
		return;
	std::ostringstream s;
	for (const std::string &x : v)
		s << "violation: " << x << "\n";
	for (const std::string &x : l)
		s << "leak: " << x << "\n";
	s << "last kernel log lines:\n" << log::dump(40);
	ADD_FAILURE() << s.str();
}

} // namespace tb

extern "C" void tb_violation(const char *fmt, ...)
{
	char buf[512];
	va_list ap;

	va_start(ap, fmt);
	vsnprintf(buf, sizeof(buf), fmt, ap);
	va_end(ap);
	tb::detail::add_violation(buf);
}
