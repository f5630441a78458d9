// SPDX-License-Identifier: GPL-2.0
//
// The captured kernel log: every pr_*() line with its level, parsed into the
// fields of the module's prefix when it has one.
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <regex>
#include <sstream>

#include "tb_internal.h"
#include "testbed.h"
#include "ucfg_tb/shim.h"

namespace tb::log {
namespace {

struct State {
	std::mutex lock;
	std::vector<Record> records;
	bool keep = true;
};

State &st()
{
	static State s;
	return s;
}

bool echo()
{
	static const bool on = [] {
		const char *e = std::getenv("UCFG_TB_LOG");
		return e && std::string(e) == "1";
	}();
	return on;
}

Level level_of(int lvl)
{
	if (lvl <= TB_LOG_ERR)
		return Level::Error;
	if (lvl == TB_LOG_WARNING)
		return Level::Warning;
	if (lvl == TB_LOG_NOTICE)
		return Level::Notice;
	if (lvl == TB_LOG_INFO)
		return Level::Info;
	return Level::Debug;
}

bool all_digits(const std::string &s, std::size_t b, std::size_t e)
{
	if (b < e && s[b] == '-')
		b++;
	if (b >= e)
		return false;
	for (std::size_t i = b; i < e; i++)
		if (!std::isdigit(static_cast<unsigned char>(s[i])))
			return false;
	return true;
}

// "[orvane] [ERROR] [tag] [step line] <comm:pid> msg" or without "[ERROR] ".
void parse(Record &r)
{
	std::string s = r.text;
	r.newline = !s.empty() && s.back() == '\n';
	if (r.newline)
		s.pop_back();
	r.msg = s;

	static const std::string head = "[orvane] ";
	if (s.compare(0, head.size(), head) != 0)
		return;
	std::size_t i = head.size();
	bool err = s.compare(i, 8, "[ERROR] ") == 0;
	if (err)
		i += 8;
	if (i >= s.size() || s[i] != '[')
		return;
	std::size_t j = s.find("] ", i);
	if (j == std::string::npos)
		return;
	std::string tag = s.substr(i + 1, j - i - 1);
	i = j + 2;
	if (i >= s.size() || s[i] != '[')
		return;
	j = s.find("] ", i);
	if (j == std::string::npos)
		return;
	std::string inner = s.substr(i + 1, j - i - 1);
	std::size_t sp = inner.rfind(' ');
	if (sp == std::string::npos || !all_digits(inner, sp + 1, inner.size()))
		return;
	i = j + 2;
	if (i >= s.size() || s[i] != '<')
		return;
	// comm may hold anything; the pid is the first ":digits> " after it.
	std::size_t k = i + 1, end = std::string::npos;
	for (; k < s.size(); k++) {
		if (s[k] != ':')
			continue;
		std::size_t gt = s.find("> ", k);
		if (gt == std::string::npos) {
			gt = s.find('>', k);
			if (gt != s.size() - 1)
				return;
		}
		if (all_digits(s, k + 1, gt)) {
			end = gt;
			break;
		}
	}
	if (end == std::string::npos)
		return;
	r.prefixed = true;
	r.error_form = err;
	r.tag = tag;
	r.step = inner.substr(0, sp);
	r.line = std::atoi(inner.c_str() + sp + 1);
	r.comm = s.substr(i + 1, k - i - 1);
	r.pid = std::atoi(s.c_str() + k + 1);
	r.msg = end + 2 <= s.size() ? s.substr(end + 2) : std::string();
}

void add(int lvl, const char *fmt, va_list ap)
{
	va_list aq;
	va_copy(aq, ap);
	int n = std::vsnprintf(nullptr, 0, fmt, aq);
	va_end(aq);
	std::string text(n > 0 ? static_cast<std::size_t>(n) : 0, '\0');
	if (n > 0)
		std::vsnprintf(&text[0], text.size() + 1, fmt, ap);

	if (!st().keep)
		return;	// formatted, as the kernel does, then dropped
	Record r{};
	r.level = level_of(lvl);
	r.text = text;
	parse(r);
	if (echo())
		std::fprintf(stderr, "<%d>%s%s", lvl, text.c_str(), r.newline ? "" : "\n");
	std::lock_guard<std::mutex> g(st().lock);
	st().records.push_back(std::move(r));
}

} // namespace

void set_keep(bool keep)
{
	std::lock_guard<std::mutex> g(st().lock);
	st().keep = keep;
}

namespace {

bool step_ok(const Record &r, const std::string &step)
{
	return step.empty() || r.step == step;
}

// A printf format as a regular expression matching any substituted values.
std::regex format_regex(const std::string &fmt)
{
	std::string re;
	for (std::size_t i = 0; i < fmt.size(); i++) {
		char c = fmt[i];
		if (c == '%' && i + 1 < fmt.size()) {
			std::size_t j = i + 1;
			if (fmt[j] == '%') {
				re += '%';
				i = j;
				continue;
			}
			while (j < fmt.size() && std::strchr("-+ #0123456789.hlzjt", fmt[j]))
				j++;
			if (j < fmt.size()) {
				switch (fmt[j]) {
				case 'd':
				case 'i':
					re += "-?[0-9]+";
					break;
				case 'u':
					re += "[0-9]+";
					break;
				case 'x':
				case 'X':
					re += "(0[xX])?[0-9a-fA-F]+";
					break;
				case 'c':
					re += "[\\s\\S]";
					break;
				default: /* s, p, anything else */
					re += "[\\s\\S]*";
					break;
				}
				i = j;
				continue;
			}
		}
		if (std::strchr("\\^$.|?*+()[]{}", c))
			re += '\\';
		re += c;
	}
	return std::regex(re);
}

template <typename Pred>
std::vector<Record> select(Level level, const std::string &step, Pred pred)
{
	std::lock_guard<std::mutex> g(st().lock);
	std::vector<Record> out;
	for (const Record &r : st().records)
		if (r.level == level && step_ok(r, step) && pred(r))
			out.push_back(r);
	return out;
}

} // namespace

std::vector<Record> records()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().records;
}

void clear()
{
	std::lock_guard<std::mutex> g(st().lock);
	st().records.clear();
}

std::size_t size()
{
	std::lock_guard<std::mutex> g(st().lock);
	return st().records.size();
}

std::optional<Record> find(Level level, const std::string &step, const std::string &msg)
{
	auto v = select(level, step, [&](const Record &r) { return r.msg == msg; });
	if (v.empty())
		return std::nullopt;
	return v.front();
}

bool has(Level level, const std::string &step, const std::string &msg)
{
	return count(level, step, msg) != 0;
}

std::size_t count(Level level, const std::string &step, const std::string &msg)
{
	return select(level, step, [&](const Record &r) { return r.msg == msg; }).size();
}

bool has_fmt(Level level, const std::string &step, const std::string &fmt)
{
	return count_fmt(level, step, fmt) != 0;
}

std::size_t count_fmt(Level level, const std::string &step, const std::string &fmt)
{
	std::regex re = format_regex(fmt);
	return select(level, step,
		      [&](const Record &r) { return std::regex_match(r.msg, re); })
		.size();
}

std::size_t count(Level level)
{
	return select(level, "", [](const Record &) { return true; }).size();
}

std::vector<std::string> steps(Level level)
{
	std::vector<std::string> out;
	for (const Record &r : select(level, "", [](const Record &) { return true; }))
		out.push_back(r.step);
	return out;
}

const char *level_name(Level level)
{
	switch (level) {
	case Level::Error:
		return "err";
	case Level::Warning:
		return "warn";
	case Level::Notice:
		return "notice";
	case Level::Info:
		return "info";
	case Level::Debug:
		return "debug";
	}
	return "?";
}

std::string dump(std::size_t max_lines)
{
	std::lock_guard<std::mutex> g(st().lock);
	const std::vector<Record> &v = st().records;
	std::size_t from = max_lines && v.size() > max_lines ? v.size() - max_lines : 0;
	std::ostringstream s;
	if (from)
		s << "  ... " << from << " earlier line(s)\n";
	for (std::size_t i = from; i < v.size(); i++) {
		s << "  " << level_name(v[i].level) << ": " << v[i].text;
		if (!v[i].newline)
			s << "\n";
	}
	return s.str();
}

} // namespace tb::log

void tb::detail::reset_log()
{
	tb::log::clear();
	tb::log::set_keep(true);
}

extern "C" void tb_printk(int level, const char *fmt, ...)
{
	va_list ap;
	va_start(ap, fmt);
	tb::log::add(level, fmt, ap);
	va_end(ap);
}

extern "C" int tb_printk_raw(const char *fmt, ...)
{
	int level = TB_LOG_WARNING;	// the kernel's default message level
	if (fmt[0] == '\001' && fmt[1] >= '0' && fmt[1] <= '7') {
		level = fmt[1] - '0';
		fmt += 2;
	}
	va_list ap;
	va_start(ap, fmt);
	tb::log::add(level, fmt, ap);
	va_end(ap);
	return 0;
}
