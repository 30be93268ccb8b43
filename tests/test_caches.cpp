// The allow cache and the process cache: counters after known sequences, the
// target limit, pid reuse, and consistency under concurrent use.
#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "TestUtil.h"
#include "ZELK.h"
#include "ZELKAllowCache.h"
#include "ZELKEventAbstraction.h"
#include "ZELKProcessCache.h"
#include "zelk.h"

namespace {

using Metrics = std::map<std::string, double>;
using Json = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

// The "AllowCache" object below `parent` as name → value, with its key order.
Metrics AllowCacheOf(cJSON* parent, std::vector<std::string>* order = nullptr) {
    cJSON* object = cJSON_GetObjectItemCaseSensitive(parent, "AllowCache");
    EXPECT_NE(object, nullptr);
    Metrics values;
    cJSON* item = nullptr;
    cJSON_ArrayForEach(item, object) {
        values[item->string] = item->valuedouble;
        if (order != nullptr) {
            order->push_back(item->string);
        }
    }
    return values;
}

Metrics ReadMetrics(ZELKAllowCache& cache, std::vector<std::string>* order = nullptr) {
    Json root(cJSON_CreateObject(), cJSON_Delete);
    cache.GetMetrics(root.get());
    return AllowCacheOf(root.get(), order);
}

// Checks the listed counters only.
void ExpectMetrics(ZELKAllowCache& cache, const Metrics& want) {
    Metrics m = ReadMetrics(cache);
    for (const auto& [key, value] : want) {
        EXPECT_EQ(m[key], value) << key;
    }
}

TEST(AllowCache, CountersFollowAddLookupRemove) {
    ZELKAllowCache cache;
    cache.AddCacheNode("root", "/bin/bash", "/usr/bin/ls");
    cache.AddCacheNode("root", "/bin/bash", "/usr/bin/ls");  // same triple: nothing
    ExpectMetrics(cache, {{"Add", 1}, {"Change", 0}, {"mapSize", 1}, {"maxDepth", 1}});
    cache.AddCacheNode("alice", "/bin/bash", "/usr/bin/ls");  // second user
    cache.AddCacheNode("root", "/bin/sh", "/usr/bin/ls");     // second process
    ExpectMetrics(cache, {{"Add", 1}, {"Change", 2}, {"mapSize", 1}, {"maxDepth", 2}});

    EXPECT_TRUE(cache.IsCached("alice", "/bin/bash", "/usr/bin/ls"));
    EXPECT_TRUE(cache.IsCached("root", "/bin/sh", "/usr/bin/ls"));
    EXPECT_FALSE(cache.IsCached("root", "/bin/bash", "/usr/bin/cat"));  // target
    EXPECT_FALSE(cache.IsCached("root", "/bin/zsh", "/usr/bin/ls"));    // process
    EXPECT_FALSE(cache.IsCached("alice", "/bin/sh", "/usr/bin/ls"));    // user
    ExpectMetrics(
        cache, {{"Hit", 2}, {"Miss", 3}, {"targetMiss", 1}, {"processMiss", 1}, {"userMiss", 1}});

    cache.RemoveCacheNode("/usr/bin/cat");
    ExpectMetrics(cache, {{"removeMiss", 1}, {"removeHit", 0}, {"mapSize", 1}});
    cache.RemoveCacheNode("/usr/bin/ls");  // drops every process and user below
    EXPECT_FALSE(cache.IsCached("alice", "/bin/bash", "/usr/bin/ls"));
    ExpectMetrics(cache, {{"removeHit", 1}, {"mapSize", 0}});
}

TEST(AllowCache, FlushZeroesAllButClearInFixedKeyOrder) {
    ZELKAllowCache cache;
    cache.AddCacheNode("u", "p", "t");
    cache.IsCached("u", "p", "t");
    cache.IsCached("u", "p", "x");
    cache.RemoveCacheNode("x");
    cache.FlushCache();
    std::vector<std::string> order;
    Metrics m = ReadMetrics(cache, &order);
    const std::vector<std::string> expected = {
        "Add",       "Change",     "Clear",      "Hit",      "Miss",    "processMiss",
        "removeHit", "removeMiss", "targetMiss", "userMiss", "mapSize", "maxDepth"};
    EXPECT_EQ(order, expected);
    for (const auto& [key, value] : m) {
        EXPECT_EQ(value, key == "Clear" ? 1 : 0) << key;
    }
    EXPECT_FALSE(cache.IsCached("u", "p", "t"));
}

TEST(AllowCache, TheTargetAfterTheLimitFlushesFirst) {
    ZELKAllowCache cache;
    for (size_t i = 0; i < ZELKAllowCache::kMaxTargets; ++i) {
        cache.AddCacheNode("u", "p", "/t/" + std::to_string(i));
    }
    ExpectMetrics(cache, {{"mapSize", 4096}, {"Add", 4096}, {"Clear", 0}});
    cache.AddCacheNode("u", "p", "/t/new");
    ExpectMetrics(cache, {{"mapSize", 1}, {"Add", 1}, {"Clear", 1}});
    EXPECT_FALSE(cache.IsCached("u", "p", "/t/0"));
    EXPECT_TRUE(cache.IsCached("u", "p", "/t/new"));
}

TEST(AllowCache, ConcurrentUseKeepsCountersConsistent) {
    ZELKAllowCache cache;
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&cache, t] {
            const std::string user = "user" + std::to_string(t);
            for (int i = 0; i < kRounds; ++i) {
                // Targets are shared, so adds, changes and removals interleave.
                const std::string target = "/bin/t" + std::to_string(i % 50);
                cache.AddCacheNode(user, "/bin/sh", target);
                cache.IsCached(user, "/bin/sh", target);
                if (i % 7 == 0) {
                    cache.RemoveCacheNode(target);
                }
                Json root(cJSON_CreateObject(), cJSON_Delete);
                cache.GetMetrics(root.get());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    Metrics m = ReadMetrics(cache);
    EXPECT_EQ(m["Hit"] + m["Miss"], kThreads * kRounds);
    EXPECT_EQ(m["Miss"], m["targetMiss"] + m["processMiss"] + m["userMiss"]);
    EXPECT_EQ(m["removeHit"] + m["removeMiss"], kThreads * (kRounds / 7 + 1));
    // Every target ever added is either still there or was removed once.
    EXPECT_EQ(m["Add"], m["mapSize"] + m["removeHit"]);
    EXPECT_LE(m["maxDepth"], kThreads);
    EXPECT_EQ(m["Clear"], 0);
}

// More lookup threads than reader slots, so some share a slot, while a
// writer keeps adding and removing other targets: every lookup of the stable
// targets hits, and the summed counters are exact once the threads stop.
TEST(AllowCache, HitsFromManyThreadsBesideAWriterAreExact) {
    ZELKAllowCache cache;
    constexpr int kStable = 16;
    for (int i = 0; i < kStable; ++i) {
        cache.AddCacheNode("u", "/bin/sh", "/bin/stable" + std::to_string(i));
    }
    constexpr int kReaders = static_cast<int>(ZELKAllowCache::kReaderSlots) + 6;
    constexpr int kRounds = 500;
    std::atomic<bool> stop{false};
    std::atomic<int> wrongAnswers{0};
    std::thread writer([&] {
        for (int i = 0; !stop.load(); ++i) {
            const std::string target = "/bin/churn" + std::to_string(i % 32);
            cache.AddCacheNode("u", "/bin/sh", target);
            cache.RemoveCacheNode(target);
        }
    });
    std::vector<std::thread> readers;
    for (int t = 0; t < kReaders; ++t) {
        readers.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                if (!cache.IsCached("u", "/bin/sh",
                                    "/bin/stable" + std::to_string((i + t) % kStable))) {
                    ++wrongAnswers;
                }
            }
        });
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    stop = true;
    writer.join();
    EXPECT_EQ(wrongAnswers.load(), 0);
    Metrics m = ReadMetrics(cache);
    EXPECT_EQ(m["Hit"], kReaders * kRounds);
    EXPECT_EQ(m["Miss"], 0);
    EXPECT_EQ(m["mapSize"], kStable);
    EXPECT_EQ(m["Add"], kStable + m["removeHit"]);
    // A flush zeroes the lookup counters of every slot.
    cache.FlushCache();
    ExpectMetrics(cache, {{"Hit", 0}, {"Miss", 0}, {"Clear", 1}, {"mapSize", 0}});
}

TEST(AllowCache, DecisionsOlderThanAPolicyChangeAreNotCached) {
    ZELKAllowCache cache;
    const std::string user = "u", process = "/bin/sh", target = "/bin/ls";
    const uint64_t before = cache.PolicyGeneration();
    EXPECT_TRUE(cache.AddCacheNode(user, process, "/bin/a", before));

    cache.BeginPolicyChange();
    const uint64_t during = cache.PolicyGeneration();
    EXPECT_FALSE(cache.AddCacheNode(user, process, target, before));
    EXPECT_FALSE(cache.AddCacheNode(user, process, target, during)) << "import under way";
    cache.EndPolicyChange();
    EXPECT_FALSE(cache.AddCacheNode(user, process, target, during)) << "read a half-done import";
    EXPECT_FALSE(cache.IsCached(user, process, target));
    EXPECT_TRUE(cache.AddCacheNode(user, process, target, cache.PolicyGeneration()));
    EXPECT_TRUE(cache.IsCached(user, process, target));
}

// Through the exported interface: the metrics document carries the engine's
// allow cache, and importing a ruleset flushes it whether or not the import
// succeeds.
TEST(AllowCache, EngineReportsAndFlushesOnRulesetImport) {
    const std::string dir = zelktest::ScratchDir();
    ac_engine_start_s start = zelktest::StartRecord(dir + "/ac.db");
    ASSERT_EQ(engine_start(&start), 0u);
    ASSERT_NE(engine, nullptr);
    ZELKAllowCache& cache = engine->GetAllowCache();
    EXPECT_EQ(&cache, &engine->GetQuery().GetAllowCache());
    cache.AddCacheNode("root", "/bin/sh", "/usr/bin/ls");
    cache.AddCacheNode("root", "/bin/sh", "/usr/bin/cat");

    auto exported = [] {
        unsigned size = 0;
        get_metrics_mem(nullptr, &size);
        std::string buffer(size, '\0');
        EXPECT_EQ(get_metrics_mem(&buffer[0], &size), 0u);
        Json root(cJSON_Parse(buffer.c_str()), cJSON_Delete);
        return AllowCacheOf(cJSON_GetObjectItemCaseSensitive(root.get(), "metrics"));
    };
    Metrics m = exported();
    EXPECT_EQ(m["Add"], 2);
    EXPECT_EQ(m["mapSize"], 2);

    set_ruleset_buffer(false, "{}", "rs");
    EXPECT_FALSE(cache.IsCached("root", "/bin/sh", "/usr/bin/ls"));
    cache.AddCacheNode("root", "/bin/sh", "/usr/bin/ls");
    set_ruleset(false, (dir + "/no-such-ruleset.json").c_str(), "rs");
    m = exported();
    EXPECT_EQ(m["Clear"], 2);
    EXPECT_EQ(m["mapSize"], 0);
    ASSERT_EQ(engine_stop(), 0u);
}

// Counts calls of the pruning hook, which runs under the cache's lock.
class CountingProcessCache : public ZELKProcessCache {
  public:
    void PruneProcessCache() override {
        ++prunes;
        ZELKProcessCache::PruneProcessCache();
    }
    int prunes = 0;
};

TEST(ProcessCache, LookupsAdditionsAndPidReuse) {
    ZELKProcessCache cache;
    EXPECT_FALSE(cache.AddProcess(0, 8, "bash"));  // pid 0 is never recorded
    EXPECT_FALSE(cache.AddProcess(100, 8, "bash"));
    EXPECT_FALSE(cache.AddProcess(100, 4, "python3"));  // first type stays
    EXPECT_EQ(cache.GetAdditions(), 1u);

    EXPECT_EQ(cache.GetProcess(0, "bash"), 0u);  // no lookup at all
    EXPECT_EQ(cache.GetProcess(100, ""), 0u);
    EXPECT_EQ(cache.GetHits() + cache.GetMisses(), 0u);

    EXPECT_EQ(cache.GetProcess(100, "bash"), 8u);
    EXPECT_EQ(cache.GetProcess(100, "python3"), 0u);  // pid reused by another image
    EXPECT_EQ(cache.GetProcess(100, "bas"), 0u);
    EXPECT_EQ(cache.GetProcess(101, "bash"), 0u);
    EXPECT_EQ(cache.GetHits(), 1u);
    EXPECT_EQ(cache.GetMisses(), 3u);

    cache.RemoveProcess(100);
    EXPECT_EQ(cache.GetProcess(100, "bash"), 0u);
    cache.AddProcess(100, 4, "python3");
    EXPECT_EQ(cache.GetProcess(100, "python3"), 4u);
    cache.AddProcess(200, 8, "sh");
    cache.ClearProcessCache();
    EXPECT_EQ(cache.Size(), 0u);
    EXPECT_EQ(cache.GetProcess(200, "sh"), 0u);
}

TEST(ProcessCache, PruningHookRunsEvery1024AdditionsAndKeepsEntries) {
    CountingProcessCache cache;
    for (unsigned long pid = 1; pid <= 3000; ++pid) {
        cache.AddProcess(pid, pid % 40, "p");
        cache.AddProcess(pid, 1, "again");  // refused: not an addition
        EXPECT_EQ(cache.prunes, static_cast<int>(pid / 1024)) << pid;
    }
    EXPECT_EQ(cache.Size(), 3000u);
    EXPECT_EQ(cache.GetProcess(2999, "p"), 2999u % 40);
}

TEST(ProcessCache, ConcurrentUseKeepsCountersConsistent) {
    ZELKProcessCache cache;
    constexpr int kThreads = 4;
    constexpr unsigned long kPids = 3000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&cache, t] {
            for (unsigned long pid = 1; pid <= kPids; ++pid) {
                // All threads add the same pids; only one addition per pid wins.
                cache.AddProcess(pid, 7, "worker");
                EXPECT_EQ(cache.GetProcess(pid, "worker"), 7u);
                cache.GetProcess(pid, "other");
                if (pid % 4 == static_cast<unsigned long>(t)) {
                    cache.RemoveProcess(pid + kPids);  // never present
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(cache.GetAdditions(), kPids);
    EXPECT_EQ(cache.Size(), kPids);
    EXPECT_EQ(cache.GetHits(), kThreads * kPids);
    EXPECT_EQ(cache.GetMisses(), kThreads * kPids);
}

}  // namespace
