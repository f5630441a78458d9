// SPDX-License-Identifier: GPL-2.0
#include "ucfg_image.h"

#include <iostream>

int main(int argc, char **argv)
{
	std::vector<std::string> args(argv + 1, argv + argc);
	return ucfg_image::run(args, std::cout, std::cerr);
}
