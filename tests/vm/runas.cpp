// SPDX-License-Identifier: GPL-2.0
//
// runas UID GID PROGRAM [ARGS...]: runs PROGRAM as that real and effective
// user and group, with no supplementary groups and so with no capabilities
// left (a non-root uid drops them on exec). The test VM has no su or sudo.
#include <grp.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char **argv)
{
	if (argc < 4) {
		std::fprintf(stderr, "usage: runas UID GID PROGRAM [ARGS...]\n");
		return 1;
	}
	const uid_t uid = static_cast<uid_t>(std::strtoul(argv[1], nullptr, 10));
	const gid_t gid = static_cast<gid_t>(std::strtoul(argv[2], nullptr, 10));
	if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, gid) != 0 ||
	    setresuid(uid, uid, uid) != 0) {
		std::perror("runas");
		return 1;
	}
	execv(argv[3], argv + 3);
	std::perror("runas: exec");
	return 1;
}
