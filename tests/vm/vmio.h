// SPDX-License-Identifier: GPL-2.0
//
// Small helpers both in-VM programs use: writing a control file and running
// a shell command.
#ifndef UCFG_VM_VMIO_H
#define UCFG_VM_VMIO_H

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace vmio {

// Writes text to a sysfs/debugfs file; returns 0 or the errno.
inline int put(const std::string &path, const std::string &text)
{
	int fd = open(path.c_str(), O_WRONLY);
	if (fd < 0)
		return errno;
	ssize_t n = write(fd, text.data(), text.size());
	int err = n < 0 ? errno : 0;
	close(fd);
	return err;
}

// Runs cmd through the shell, output discarded; returns its exit status.
inline int sh(const std::string &cmd)
{
	int st = std::system((cmd + " >/dev/null 2>&1").c_str());
	return WIFEXITED(st) ? WEXITSTATUS(st) : 255;
}

} // namespace vmio

#endif // UCFG_VM_VMIO_H
