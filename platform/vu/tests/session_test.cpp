#include <gtest/gtest.h>

#include <vu/objectbuilder.hpp>
#include <vu/session.hpp>

#include <testing/errors.hpp>
#include <testing/waiting.hpp>

using namespace std::chrono_literals;
using vu::Future;
using vu::Object;

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
    ASSERT_TRUE(future.wait(TestSupport::patience));
    const auto error = TestSupport::serviceErrorOf([&] { future.value(); });
    EXPECT_EQ(error.description(), text);
    EXPECT_EQ(error.kind(), vu::ServiceError::Kind::UnknownService);
  }

  const std::shared_ptr<vu::ThreadPool> pool = std::make_shared<vu::ThreadPool>(vu::ThreadPool::Limits{1, 8, 64, 1s});
  vu::LocalSession session{pool};
};

} // namespace

TEST_F(SessionTest, WaitEndsWithTheServiceTheTimeOutOrTheSession)
{
  expectUnknown(session.service("Arm"), "there is no service Arm");
  // More of them than the pool has threads.
  TestSupport::Event ended(3);
  for (int i = 0; i < 3; ++i)
    pool->post([&] { expectUnknown(session.service("Arm", "", 5), "there is no service Arm after 5 ms"), ended.set(); });
  EXPECT_TRUE(ended.wait());

  const auto wait = session.service("Arm", "", -1);
  session.reserve("Arm");
  const auto failed = session.whenConstructed("Arm");
  EXPECT_FALSE(failed.isFinished());
  session.withdraw("Arm");
  expectUnknown(failed, "the service Arm could not be constructed");
  EXPECT_FALSE(wait.isFinished()) << "a constructor that failed does not end an ordinary wait";
  expectUnknown(session.whenConstructed("Arm"), "there is no service Arm");

  session.reserve("Arm");
  const auto constructed = session.whenConstructed("Arm");
  const auto arm = make("Arm");
  session.publish(arm);
  for (const auto& future : {wait, constructed, session.whenConstructed("Arm")})
    EXPECT_EQ(future.value().backend(), arm);

  session.withdraw("Arm");
  const auto open = session.service("Arm", "", -1);
  session.close();
  expectUnknown(open, "there is no service Arm: the host is shutting down");
  expectUnknown(session.service("Arm", "", 20000), "there is no service Arm");
  expectUnknown(session.whenConstructed("Arm"), "there is no service Arm");
}
