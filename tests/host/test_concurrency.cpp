// SPDX-License-Identifier: GPL-2.0
//
// Many tasks at once through every entry: the ioctl and the kernel API
// writing and reading on both devices, and the exported reads that other
// modules call without the flash lock, while head copies rot and need
// repair. Requests of one device must behave as if run one at a time: a
// read never sees a torn or mixed value, never an older value than one it
// saw before, and never undoes a write.
//
// Built under ThreadSanitizer too (run-tsan.sh); UCFG_CONC_ROUNDS scales
// the length.
#include "entry_helpers.h"
#include "model.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>

extern "C" {
#include "catalogue/catalogue.h"
}

using namespace entry;

namespace {

u32 rounds()
{
	const char *v = std::getenv("UCFG_CONC_ROUNDS");
	return v ? static_cast<u32>(std::strtoul(v, nullptr, 0)) : 120;
}

// cpu_num_cfg value number k of a device: every byte derived from k, so a
// value mixed from two writes shows. k = 0 is the device-tree default.
Bytes cpu_value(u32 dev, u32 k)
{
	Bytes v(16, 0);
	if (k == 0) {
		v[0] = model::kDtsCpu[0];
		v[1] = model::kDtsCpu[1];
		v[2] = model::kDtsCpu[2];
		return v;
	}
	// Byte 0 never equals the default's, bytes 1 and 2 carry k (k < 256).
	v[0] = static_cast<std::uint8_t>(0x80 | dev);
	v[1] = static_cast<std::uint8_t>(k);
	v[2] = static_cast<std::uint8_t>(~k);
	for (u32 i = 3; i < 16; i++)
		v[i] = static_cast<std::uint8_t>((k * 7 + i + dev * 100) & 0xff);
	return v;
}

// Which k a read value is; -1 when it is none of them (torn or invented).
int cpu_k(u32 dev, const Bytes &v, u32 max_k)
{
	for (u32 k = 0; k <= max_k; k++)
		if (v == cpu_value(dev, k))
			return static_cast<int>(k);
	return -1;
}

int ioctl_set(u32 dev, const std::string &name, Bytes v)
{
	user_cfg_para p = para(dev, 1, name, v.data(), static_cast<u32>(v.size()));
	return ioctl(&p);
}

int ioctl_get(u32 dev, const std::string &name, Bytes &out)
{
	out.assign(32768, 0);
	user_cfg_para p = para(dev, 0, name, out.data(), 32768);
	const model::StaticItem *s = model::find_static(name);
	if (s)
		p.buf_size = s->len;
	int rc = ioctl(&p);
	out.resize(s ? s->len : (rc == 0 ? p.buf_size : 0));
	return rc;
}

struct Failures {
	std::mutex lock;
	std::vector<std::string> list;
	void add(const std::string &s)
	{
		std::lock_guard<std::mutex> g(lock);
		if (list.size() < 20)
			list.push_back(s);
	}
};

} // namespace

class Concurrency : public tb::Fixture {};

TEST_F(Concurrency, MixedEntriesWithUnlockedReadersAndRepairs)
{
	model::store::become_daemon();
	const u32 n = rounds();
	Failures fail;
	std::atomic<bool> writers_done{false};
	// Last cpu_num_cfg value number each device's writer completed.
	std::atomic<u32> cpu_done[2] = {{0}, {0}};
	// Last value of the shared item per (writer, device).
	Bytes shared_last[2][2];
	std::atomic<u32> repairs_needed{0}, reads_unlocked{0};

	auto as_daemon = [] {
		tb::task::Spec s = daemon(true);
		tb::task::set(s);
	};

	std::vector<std::thread> threads;

	// One writer per device owns cpu_num_cfg there and reads every value
	// back under the lock: an unlocked reader's repair must not undo it.
	for (u32 dev = 0; dev < 2; dev++) {
		threads.emplace_back([&, dev] {
			as_daemon();
			for (u32 k = 1; k <= n; k++) {
				Bytes v = cpu_value(dev, k);
				int rc = (k % 2) ? ioctl_set(dev, "cpu_num_cfg", v)
						 : hal_kernel_set_user_config(dev, "cpu_num_cfg",
									      v.data(), 16);
				if (rc != 0)
					fail.add("cpu set rc " + std::to_string(rc));
				cpu_done[dev] = k;
				Bytes back(16);
				u32 out = 0;
				rc = hal_kernel_get_user_config(dev, "cpu_num_cfg", back.data(), 16, &out);
				if (rc != 0 || back != v)
					fail.add("cpu value " + std::to_string(k) + " undone on dev " +
						 std::to_string(dev));
			}
		});
	}

	// Two writers with items of their own on both devices, mixing the
	// entries and clears, plus one item all of them write.
	for (u32 w = 0; w < 2; w++) {
		threads.emplace_back([&, w] {
			as_daemon();
			std::mt19937 rng(1000 + w);
			std::map<std::pair<u32, std::string>, std::optional<Bytes>> mine;
			for (u32 i = 0; i < 2 * n; i++) {
				const u32 dev = rng() % 2;
				const std::string name = "w" + std::to_string(w) + "_" +
							 std::to_string(rng() % 3);
				const u32 what = rng() % 6;
				const bool via_ioctl = rng() % 2;
				if (what <= 2) {
					Bytes v(1 + rng() % 600);
					for (auto &b : v)
						b = static_cast<std::uint8_t>(rng());
					int rc = via_ioctl ? ioctl_set(dev, name, v)
							   : hal_kernel_set_user_config(dev, name.c_str(),
											v.data(),
											static_cast<u32>(v.size()));
					if (rc != 0)
						fail.add("set " + name + " rc " + std::to_string(rc));
					mine[{dev, name}] = v;
				} else if (what == 3) {
					user_cfg_para p = para(dev, 2, name);
					int rc = ioctl(&p);
					auto it = mine.find({dev, name});
					const bool had = it != mine.end() && it->second;
					if (rc != (had ? 0 : -ENOENT))
						fail.add("clear " + name + " rc " + std::to_string(rc));
					mine[{dev, name}] = std::nullopt;
				} else if (what == 4) {
					Bytes v(4);
					for (auto &b : v)
						b = static_cast<std::uint8_t>(rng());
					v[0] = static_cast<std::uint8_t>(w);
					int rc = via_ioctl ? ioctl_set(dev, "p2p_mem_cfg", v)
							   : hal_kernel_set_user_config(dev, "p2p_mem_cfg",
											v.data(), 4);
					if (rc != 0)
						fail.add("shared set rc " + std::to_string(rc));
					shared_last[w][dev] = v;
				} else {
					Bytes got;
					int rc = ioctl_get(dev, name, got);
					auto it = mine.find({dev, name});
					const bool has = it != mine.end() && it->second;
					if (has ? (rc != 0 || got != *it->second) : rc != -ENOENT)
						fail.add("get " + name + " rc " + std::to_string(rc) +
							 " differs from the last write");
				}
			}
			// Leave every own item set, for the final check.
			for (auto &e : mine) {
				if (!e.second)
					continue;
				Bytes got;
				if (ioctl_get(e.first.first, e.first.second, got) != 0 ||
				    got != *e.second)
					fail.add("final " + e.first.second);
			}
		});
	}

	// Readers through the exported functions, without any lock: values
	// must be whole, and never older than one seen before.
	for (u32 r = 0; r < 2; r++) {
		threads.emplace_back([&, r] {
			int seen[2] = {0, 0};
			u32 i = 0;
			while (!writers_done) {
				const u32 dev = (i++ + r) % 2;
				Bytes v(16, 0xEE);
				int rc;
				if ((i + r) % 2) {
					u32 len = 16;
					rc = devdrv_get_user_config_core(dev, kCpuNumCfg, v.data(), &len);
					if (rc == 0 && len != 16)
						fail.add("core length " + std::to_string(len));
				} else {
					u32 three[3] = {0, 0, 0};
					rc = dev_user_cfg_get_cpu_cfg(dev, three, 12);
					// Only the first three bytes come back.
					Bytes full = v;
					const int lo = static_cast<int>(cpu_done[dev].load());
					for (int k = lo + 1; k >= 0; k--) {
						Bytes c = cpu_value(dev, static_cast<u32>(k));
						if (c[0] == three[0] && c[1] == three[1] && c[2] == three[2]) {
							full = c;
							break;
						}
					}
					v = full;
				}
				reads_unlocked++;
				if (rc != 0) {
					fail.add("unlocked read rc " + std::to_string(rc));
					continue;
				}
				const int k = cpu_k(dev, v, n);
				if (k < 0)
					fail.add("torn or invented cpu_num_cfg on dev " + std::to_string(dev));
				else if (k < seen[dev])
					fail.add("went back from " + std::to_string(seen[dev]) + " to " +
						 std::to_string(k));
				else
					seen[dev] = k;
			}
		});
	}

	// Rot at rest: with the device idle (its lock held here, both copies
	// equal), damage one head copy; the next request of any kind repairs it.
	threads.emplace_back([&] {
		std::mt19937 rng(77);
		while (!writers_done) {
			const u32 dev = rng() % 2;
			devdrv_config_mutex_lock(dev);
			if (tb::flash::block(dev, 0) == tb::flash::block(dev, 32)) {
				const u32 blk = (rng() % 2) ? 32 : 0;
				tb::flash::flip_bits(dev, blk, 4 + rng() % 3000, 0x10);
				repairs_needed++;
			}
			devdrv_config_mutex_unlock(dev);
			std::this_thread::sleep_for(std::chrono::milliseconds(2));
		}
	});

	const std::size_t n_writers = 4;
	for (std::size_t i = 0; i < n_writers; i++)
		threads[i].join();
	writers_done = true;
	for (std::size_t i = n_writers; i < threads.size(); i++)
		threads[i].join();

	for (const auto &f : fail.list)
		ADD_FAILURE() << f;
	EXPECT_GT(repairs_needed.load(), 3u);
	EXPECT_GT(reads_unlocked.load(), 10u);

	// At rest: each device holds the last cpu_num_cfg value, the shared
	// item holds the last write of one of its writers, and both head
	// copies are valid and equal.
	for (u32 dev = 0; dev < 2; dev++) {
		Bytes got;
		ASSERT_EQ(ioctl_get(dev, "cpu_num_cfg", got), 0);
		EXPECT_EQ(got, cpu_value(dev, n));
		ASSERT_EQ(ioctl_get(dev, "p2p_mem_cfg", got), 0);
		bool from_a_last = false;
		for (u32 w = 0; w < 2; w++)
			from_a_last |= !shared_last[w][dev].empty() && got == shared_last[w][dev];
		EXPECT_TRUE(from_a_last) << "p2p_mem_cfg on dev " << dev;
		EXPECT_EQ(model::check_flash(dev), "") << "dev " << dev;
		EXPECT_TRUE(tb::flash::block(dev, 0) == tb::flash::block(dev, 32));
	}
	EXPECT_EQ(tb::locks::held(), 0);
}

// Unlocked readers of a dynamic-and-static device while a writer keeps
// setting ssh_status and a dynamic item: the final state is the last
// write, and the head copies are valid and equal.
TEST_F(Concurrency, ReadersNeverUndoAWrite)
{
	model::store::become_daemon();
	const u32 n = rounds() * 2;
	std::atomic<bool> done{false};
	std::atomic<u32> bad{0};
	std::thread writer([&] {
		tb::task::set(daemon(true));
		for (u32 i = 1; i <= n; i++) {
			Bytes s = {static_cast<std::uint8_t>(i % 2)};
			Bytes d(64, static_cast<std::uint8_t>(i));
			if (ioctl_set(0, "ssh_status", s) != 0 || ioctl_set(0, "dyn", d) != 0)
				bad++;
			if (i % 5 == 0) {
				// Damage the backup head while the device is idle.
				devdrv_config_mutex_lock(0);
				tb::flash::flip_bits(0, 32, 100, 0x01);
				devdrv_config_mutex_unlock(0);
			}
		}
		done = true;
	});
	std::vector<std::thread> readers;
	for (int r = 0; r < 3; r++) {
		readers.emplace_back([&] {
			while (!done) {
				std::uint8_t v = 0xEE;
				u32 len = 1;
				if (devdrv_get_user_config_core(0, kSshStatus, &v, &len) != 0 || v > 1)
					bad++;
				std::uint8_t cpu[16];
				if (devdrv_config_get_cpu_cfg(0, cpu, 16) != 0 ||
				    cpu[0] != model::kDtsCpu[0])
					bad++;
			}
		});
	}
	writer.join();
	for (auto &t : readers)
		t.join();
	EXPECT_EQ(bad.load(), 0u);
	Bytes got;
	ASSERT_EQ(ioctl_get(0, "ssh_status", got), 0);
	EXPECT_EQ(got, Bytes{static_cast<std::uint8_t>(n % 2)});
	ASSERT_EQ(ioctl_get(0, "dyn", got), 0);
	EXPECT_EQ(got, Bytes(64, static_cast<std::uint8_t>(n)));
	EXPECT_EQ(model::check_flash(0), "");
	EXPECT_TRUE(tb::flash::block(0, 0) == tb::flash::block(0, 32));
}
