#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <vu/error.hpp>
#include <vu/objectbuilder.hpp>
#include <vu/session.hpp>

#include "waiting.hpp"

using namespace std::chrono_literals;
using vu::Future;
using vu::Object;
using vu::ServiceError;

namespace
{

class SessionTest : public testing::Test
{
protected:
  ~SessionTest() override
  {
    session.close();
    pool->close();
  }

  std::shared_ptr<vu::LocalObject> make(const std::string& name) const { return vu::ObjectBuilder(name, pool).object(); }

  static void expectUnknown(const Future<Object>& future, const std::string& text)
  {
    ASSERT_TRUE(future.wait(waiting::bound));
    try
    {
      future.value();
      ADD_FAILURE() << "found";
    }
    catch (const ServiceError& error)
    {
      EXPECT_EQ(error.kind(), ServiceError::Kind::UnknownService);
      EXPECT_EQ(error.module(), "Arm");
      EXPECT_EQ(error.description(), text);
    }
  }

  const std::shared_ptr<vu::ThreadPool> pool = std::make_shared<vu::ThreadPool>(vu::ThreadPool::Limits{1, 8, 64, 1s});
  vu::LocalSession session{pool};
};

} // namespace

TEST_F(SessionTest, ReservedServiceIsNotThereUntilItIsPublished)
{
  session.reserve("Arm");
  session.publish(make("Leg"));
  EXPECT_TRUE(session.isReserved("Arm"));
  EXPECT_FALSE(session.isReserved("Leg"));
  EXPECT_EQ(session.services(), std::vector<std::string>{"Leg"});
  EXPECT_EQ(session.find("Arm"), nullptr);
  expectUnknown(session.service("Arm"), "there is no service Arm");

  const auto arm = make("Arm");
  session.publish(arm);
  EXPECT_FALSE(session.isReserved("Arm"));
  EXPECT_EQ(session.services(), (std::vector<std::string>{"Arm", "Leg"}));
  EXPECT_EQ(session.find("Arm"), arm);
  EXPECT_EQ(session.service("Arm").value().backend(), arm);

  for (const auto& taken : std::vector<std::function<void()>>{[&] { session.reserve("Arm"); }, [&] { session.publish(make("Arm")); }})
    EXPECT_THROW(taken(), ServiceError);
  session.reserve("Head");
  EXPECT_THROW(session.reserve("Head"), ServiceError);
  EXPECT_EQ(session.find("Arm"), arm);

  session.withdraw("Arm");
  session.withdraw("Arm");
  session.withdraw("nobody");
  EXPECT_EQ(session.services(), std::vector<std::string>{"Leg"});
  EXPECT_FALSE(arm->enter()) << "a withdrawn service refuses calls";
  session.reserve("Arm");
}

TEST_F(SessionTest, WaitEndsWithTheServiceTheTimeOutOrTheSession)
{
  expectUnknown(session.service("Arm", "", 1), "there is no service Arm after 1 ms");

  std::vector<Future<Object>> waiters;
  for (const int limit : {-1, 20000, -1})
    waiters.push_back(session.service("Arm", "", limit));
  session.reserve("Arm");
  session.withdraw("Arm"); // a constructor that failed does not end an ordinary wait
  for (const auto& waiter : waiters)
    EXPECT_FALSE(waiter.isFinished());
  const auto arm = make("Arm");
  session.publish(arm);
  for (const auto& waiter : waiters)
    EXPECT_EQ(waiter.value().backend(), arm);

  session.withdraw("Arm");
  const auto open = session.service("Arm", "", -1);
  session.close();
  expectUnknown(open, "there is no service Arm: the host is shutting down");
  expectUnknown(session.service("Arm", "", 20000), "there is no service Arm");
  expectUnknown(session.whenConstructed("Arm"), "there is no service Arm");
}

TEST_F(SessionTest, WaitTimesOutWhereAllThreadsOfThePoolWait)
{
  waiting::Event ended(3);
  for (int i = 0; i < 3; ++i)
    pool->post([&] { session.service("Arm", "", 5).hasError(), ended.set(); });
  EXPECT_TRUE(ended.wait());
}

TEST_F(SessionTest, WhenConstructedWaitsOnlyWhileTheNameIsReserved)
{
  expectUnknown(session.whenConstructed("Arm"), "there is no service Arm");
  session.reserve("Arm");
  const auto failed = session.whenConstructed("Arm");
  EXPECT_FALSE(failed.isFinished());
  session.withdraw("Arm");
  expectUnknown(failed, "the service Arm could not be constructed");

  session.reserve("Arm");
  const auto constructed = session.whenConstructed("Arm");
  const auto arm = make("Arm");
  session.publish(arm);
  EXPECT_EQ(constructed.value().backend(), arm);
  EXPECT_EQ(session.whenConstructed("Arm").value().backend(), arm);
}
