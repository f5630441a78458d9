// SPDX-License-Identifier: GPL-2.0
//
// whitelist_process_handler called directly: the name stage against the
// caller's list, the identity stage against the fixed daemon table, and
// every way the executable can fail to be determined. Each case checks
// the result, the messages (all under the tag "whitelist") and that the
// executable-file reference and the name snapshot were given back.
#include "entry_helpers.h"

using namespace entry;
using tb::log::Level;

namespace {

const char *const kDevmgr[] = {"devmgr_daemon"};
const char *const kSched[] = {"sched_daemon"};
const char *const kBoth[] = {"devmgr_daemon", "sched_daemon"};
const char *const kLonger[] = {"devmgr_daemon2"};

struct Case {
	const char *label;
	tb::task::Spec spec;
	const char *const *list;
	std::uint32_t num;
	int want;
	std::vector<std::pair<std::string, std::string>> msgs;	// step, message
};

tb::task::Spec with(tb::task::Spec s, void (*edit)(tb::task::Spec &))
{
	edit(s);
	return s;
}

const std::string kNameFail = "The whitelist_check_process_name failed. (ret=-1)";

} // namespace

class Whitelist : public tb::Fixture {};

TEST_F(Whitelist, Stages)
{
	const std::vector<Case> cases = {
		{"devmgr_daemon as 1101", daemon(), kDevmgr, 1, 0, {}},
		{"devmgr_daemon as 0", task("/var/devmgr_daemon", 0, true), kDevmgr, 1, -6,
		 {{"whitelist_match_uid_path",
		   "match fail. (proc name=\"devmgr_daemon\";path=\"/var/devmgr_daemon\";uid=0)"},
		  {"whitelist_process_handler", "The whitelist_check_process_info failed. (ret=-6)"}}},
		{"devmgr_daemon as 1000", task("/var/devmgr_daemon", 1000, false), kDevmgr, 1, -6,
		 {{"whitelist_match_uid_path",
		   "match fail. (proc name=\"devmgr_daemon\";path=\"/var/devmgr_daemon\";uid=1000)"}}},
		{"sched_daemon, list devmgr", task("/var/sched_daemon", 1000, false), kDevmgr, 1, -1,
		 {{"whitelist_check_process_name", "Process name not in whitelist."},
		  {"whitelist_process_handler", kNameFail}}},
		{"sched_daemon, list sched", task("/var/sched_daemon", 1000, false), kSched, 1, 0, {}},
		{"sched_daemon, second entry", task("/var/sched_daemon", 1000, false), kBoth, 2, 0, {}},
		{"sched_daemon as 1101", task("/var/sched_daemon", 1101, false), kBoth, 2, -6,
		 {{"whitelist_match_uid_path",
		   "match fail. (proc name=\"sched_daemon\";path=\"/var/sched_daemon\";uid=1101)"}}},
		{"copy in /tmp", task("/tmp/devmgr_daemon", 1101, false), kDevmgr, 1, -6,
		 {{"whitelist_match_uid_path",
		   "match fail. (proc name=\"devmgr_daemon\";path=\"/tmp/devmgr_daemon\";uid=1101)"}}},
		{"executable devmgr_daemon2", task("/var/devmgr_daemon2", 1101, false), kDevmgr, 1, -1,
		 {{"whitelist_check_process_name", "Process name not in whitelist."}}},
		{"list entry devmgr_daemon2", daemon(), kLonger, 1, -1,
		 {{"whitelist_check_process_name", "Process name not in whitelist."}}},
		{"executable devmgr", task("/var/devmgr", 1101, false), kDevmgr, 1, -1,
		 {{"whitelist_check_process_name", "Process name not in whitelist."}}},
		{"comm renamed", task("/usr/bin/other", 1101, false, "devmgr_daemon"), kDevmgr, 1, -1,
		 {{"whitelist_check_process_name", "Process name not in whitelist."}}},
		{"deleted executable", with(daemon(), [](tb::task::Spec &s) { s.exe_deleted = true; }),
		 kDevmgr, 1, -6,
		 {{"whitelist_match_uid_path",
		   "match fail. (proc name=\"devmgr_daemon\";path=\"/var/devmgr_daemon (deleted)\";uid=1101)"}}},
		{"no active_mm", with(daemon(), [](tb::task::Spec &s) { s.no_active_mm = true; }),
		 kDevmgr, 1, -1,
		 {{"whitelist_get_cur_process_name", "The active_mm parameter is NULL."},
		  {"whitelist_check_process_name", "The whitelist_get_cur_process_name failed. (ret=-1)"},
		  {"whitelist_process_handler", kNameFail}}},
		{"no exe_file", with(daemon(), [](tb::task::Spec &s) { s.no_exe_file = true; }),
		 kDevmgr, 1, -1,
		 {{"whitelist_get_cur_process_name", "The exe_file parameter is NULL."},
		  {"whitelist_process_handler", kNameFail}}},
		{"no dentry", with(daemon(), [](tb::task::Spec &s) { s.no_dentry = true; }),
		 kDevmgr, 1, -1,
		 {{"whitelist_get_cur_process_name", "The exe_file f_path_dentry is NULL."},
		  {"whitelist_process_handler", kNameFail}}},
		{"d_path error", with(daemon(), [](tb::task::Spec &s) { s.d_path_error = -36; }),
		 kDevmgr, 1, -1,
		 {{"whitelist_get_current_path", "The res is err or null. (errno=-36)"},
		  {"whitelist_process_handler", "The whitelist_check_process_info failed. (ret=-1)"}}},
		{"d_path null", with(daemon(), [](tb::task::Spec &s) { s.d_path_null = true; }),
		 kDevmgr, 1, -1,
		 {{"whitelist_get_current_path", "The res is err or null. (errno=0)"}}},
		{"no list", daemon(), nullptr, 1, -1,
		 {{"whitelist_process_handler", "List name para is incorrect. (name_num=1)"}}},
		{"name_num 0", daemon(), kDevmgr, 0, -1,
		 {{"whitelist_check_process_name", "Process name not in whitelist."}}},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.label);
		tb::reset();
		tb::task::set(c.spec);
		EXPECT_EQ(whitelist_process_handler(c.list, c.num), c.want) << tb::log::dump(8);
		for (const auto &m : c.msgs)
			EXPECT_TRUE(tb::log::has(Level::Error, m.first, m.second))
				<< m.second << "\n" << tb::log::dump(8);
		for (const auto &r : tb::log::records()) {
			EXPECT_TRUE(r.prefixed && r.error_form) << r.text;
			EXPECT_EQ(r.tag, "whitelist") << r.text;
		}
		EXPECT_EQ(c.want == 0, tb::log::count(Level::Error) == 0);
		EXPECT_EQ(tb::task::exe_refs(), 0);
		EXPECT_EQ(tb::task::name_snapshots(), 0);
		EXPECT_EQ(tb::alloc::outstanding(), 0u);
	}
}

// The list: up to 50 names, every one present; a match anywhere in it.
TEST_F(Whitelist, ListBounds)
{
	std::vector<std::string> names;
	for (int i = 0; i < 51; i++)
		names.push_back("daemon_" + std::to_string(i));
	std::vector<const char *> list;
	for (const auto &n : names)
		list.push_back(n.c_str());
	tb::task::set(daemon());

	list[49] = "devmgr_daemon";	// the last of 50
	EXPECT_EQ(whitelist_process_handler(list.data(), 50), 0);
	EXPECT_EQ(whitelist_process_handler(list.data(), 49), -1);

	list[50] = "devmgr_daemon";
	tb::log::clear();
	EXPECT_EQ(whitelist_process_handler(list.data(), 51), -1);
	EXPECT_TRUE(tb::log::has(Level::Error, "whitelist_process_handler",
				 "List name para is incorrect. (name_num=51)"));

	list[3] = nullptr;
	tb::log::clear();
	EXPECT_EQ(whitelist_process_handler(list.data(), 50), -1);
	EXPECT_TRUE(tb::log::has(Level::Error, "whitelist_process_handler",
				 "Input process name is NULL. (i=3)"));
	// A refused list reads nothing of the task.
	EXPECT_EQ(tb::log::count(Level::Error), 1u);
	EXPECT_EQ(tb::task::exe_refs(), 0);
}

// The path buffer cannot be allocated: refused, and nothing is kept.
TEST_F(Whitelist, PathBufferAllocationFails)
{
	tb::task::set(daemon());
	ASSERT_EQ(whitelist_process_handler(kDevmgr, 1), 0);
	const tb::u32 n = tb::alloc::calls();
	ASSERT_GE(n, 1u);
	for (tb::u32 k = 1; k <= n; k++) {
		tb::reset();
		tb::task::set(daemon());
		tb::alloc::fail_nth(k);
		EXPECT_EQ(whitelist_process_handler(kDevmgr, 1), -1) << "allocation " << k;
		EXPECT_TRUE(tb::log::has(Level::Error, "", "File path vmalloc failed."));
		EXPECT_TRUE(tb::log::has(Level::Error, "whitelist_process_handler",
					 "The whitelist_check_process_info failed. (ret=-1)"));
		EXPECT_EQ(tb::task::exe_refs(), 0);
		EXPECT_EQ(tb::task::name_snapshots(), 0);
	}
}
