#include <gtest/gtest.h>

#include <kxl/KXLEnvCache.h>

#include "tests/support/MakeEnv.h"

namespace kx::test {
namespace {

TEST(EnvCache, IsEmptyBeforeTheFirstSnapshot) {
    const boost::intrusive_ptr<KXLEnvCache> cache(new KXLEnvCache);
    const auto list = cache->getEnvList();
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(list.begin(), list.end());
    EXPECT_FALSE(cache->getEnvCopy(KXLEID()));
}

TEST(EnvCache, WalksEnvironmentsInTheAgentsOrder) {
    const auto cache = makeCache({wireEnv(3), wireEnv(1, "host"), wireEnv(2)});
    std::vector<int> seen;
    const auto list = cache->getEnvList();
    for (auto it = list.begin(); it != list.end(); ++it) {
        seen.push_back(it->getEID().bytes()[15]);
    }
    EXPECT_EQ(seen, (std::vector<int>{3, 1, 2}));
}

TEST(EnvCache, FindsAnEnvironmentByItsIdentifier) {
    const auto cache = makeCache({wireEnv(3), wireEnv(1, "host"), wireEnv(2)});
    const KXLEID known = makeEnv(wireEnv(1))->getEID();
    ASSERT_TRUE(cache->getEnvCopy(known));
    EXPECT_EQ(cache->getEnvCopy(known)->getType(), "host");
    EXPECT_FALSE(cache->getEnvCopy(makeEnv(wireEnv(9))->getEID()));
}

TEST(EnvCache, AnIteratorKeepsTheListItWalksWhenTheCacheIsReplaced) {
    auto cache = makeCache({wireEnv(1), wireEnv(2)});
    auto it = cache->getEnvList().begin();
    cache->store().publish(nullptr);
    cache.reset();
    EXPECT_EQ(it->getEID().bytes()[15], 1);
    ++it;
    EXPECT_EQ(it->getEID().bytes()[15], 2);
}

TEST(EnvCache, IteratorsOfDifferentListsDiffer) {
    const auto cache = makeCache({wireEnv(1)});
    EXPECT_NE(cache->getEnvList().begin(), makeCache({wireEnv(1)})->getEnvList().begin());
    EXPECT_EQ(cache->getEnvList().begin(), cache->getEnvList().begin());
    EXPECT_EQ(KXLEnvCache::EnvValuesList::const_iterator(), KXLEnvCache::EnvValuesList::const_iterator());
}

}  // namespace
}  // namespace kx::test
