// SPDX-License-Identifier: GPL-2.0
//
// Random operation sequences through the real entry points, checked
// against the reference model after every step.
//
// UCFG_SEED and UCFG_STEPS override the fixed seed and length (a failing
// seed printed by a long run reproduces here).
#include "model.h"

#include <cstdlib>

namespace {

std::uint64_t env_or(const char *name, std::uint64_t dflt)
{
	const char *v = std::getenv(name);
	return v ? std::strtoull(v, nullptr, 0) : dflt;
}

} // namespace

class RandomOps : public tb::Fixture {};

TEST_F(RandomOps, NoFaults)
{
	model::DriverConfig cfg;
	cfg.seed = env_or("UCFG_SEED", 11);
	cfg.steps = static_cast<model::u32>(env_or("UCFG_STEPS", 300));
	model::Driver d(cfg);
	EXPECT_EQ(d.run(), "");
}

TEST_F(RandomOps, FaultsAndRot)
{
	model::DriverConfig cfg;
	cfg.seed = env_or("UCFG_SEED", 12);
	cfg.steps = static_cast<model::u32>(env_or("UCFG_STEPS", 200));
	cfg.fault_rate = 0.4;
	cfg.rot_rate = 0.1;
	model::Driver d(cfg);
	EXPECT_EQ(d.run(), "");
	EXPECT_GT(d.stats().faults, 15u);
}
