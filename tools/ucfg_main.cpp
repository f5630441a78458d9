// SPDX-License-Identifier: GPL-2.0
//
// ucfg's entry point: the real device node behind the library's commands.
#include <iostream>
#include <string>
#include <vector>

#include "ucfg.h"

int main(int argc, char **argv)
{
	std::vector<std::string> args(argv + 1, argv + argc);
	ucfg::DeviceTransport device;
	int rc = ucfg::run(args, device, std::cout, std::cerr);
	std::cout.flush();
	if (!std::cout) {
		std::cerr << "ucfg: cannot write the output\n";
		return ucfg::kExitValue;
	}
	return rc;
}
