#include <Brio/Ptr.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

struct Counted : Brio::PtrInterface {
  explicit Counted(int* deaths) : deaths_(deaths) {}
  ~Counted() override { ++*deaths_; }
  int* deaths_;
};
struct Derived : Counted {
  using Counted::Counted;
};

class PtrModes : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { Brio::threadSafePointersIs(GetParam()); }
  void TearDown() override { Brio::threadSafePointersIs(false); }
};

TEST_P(PtrModes, CountsHoldersAcrossConversionsAndDeletesWithTheLast) {
  int deaths = 0;
  Brio::Ptr<Derived> a(new Derived(&deaths));
  EXPECT_EQ(a->references(), 1u);
  {
    Brio::Ptr<Counted> base = a;
    Brio::Ptr<Counted const> constBase = base;
    Brio::Ptr<Counted> raw(a.ptr());  // a raw pointer joins the same count
    EXPECT_EQ(a->references(), 4u);
    EXPECT_EQ(Brio::ptr_cast<Derived>(base), a);
    Brio::Ptr<Counted> moved = std::move(base);
    EXPECT_FALSE(base);
    EXPECT_EQ(a->references(), 4u);
  }
  EXPECT_EQ(a->references(), 1u);
  a = nullptr;
  EXPECT_EQ(deaths, 1);
}

INSTANTIATE_TEST_SUITE_P(PlainAndAtomic, PtrModes, ::testing::Values(false, true));

TEST(Ptr, ThreadSafeModeKeepsCountsExactUnderContention) {
  Brio::threadSafePointersIs(true);
  int deaths = 0;
  Brio::Ptr<Counted> shared(new Counted(&deaths));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100000; ++i) Brio::Ptr<Counted> copy = shared;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(shared->references(), 1u);
  shared = nullptr;
  EXPECT_EQ(deaths, 1);
  Brio::threadSafePointersIs(false);
}

}  // namespace
