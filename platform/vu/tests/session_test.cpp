#include <gmock/gmock.h>

#include <vu/objectbuilder.hpp>
#include <vu/session.hpp>

#include <testing/waiting.hpp>

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
    ASSERT_TRUE(future.wait(TestSupport::patience));
    EXPECT_THAT([&] { future.value(); },
                testing::Throws<ServiceError>(testing::AllOf(testing::Property(&ServiceError::kind, ServiceError::Kind::UnknownService),
                                                             testing::Property(&ServiceError::description, text))));
  }

  const std::shared_ptr<vu::ThreadPool> pool = std::make_shared<vu::ThreadPool>(vu::ThreadPool::Limits{1, 8, 64, 1s});
  vu::LocalSession session{pool};
};

} // namespace

TEST_F(SessionTest, ReservedServiceIsNotThereUntilItIsPublished)
{
  session.reserve("Arm");
  session.publish(make("Leg"));
  EXPECT_EQ(session.services(), std::vector<std::string>{"Leg"});
  EXPECT_EQ(session.find("Arm"), nullptr);
  expectUnknown(session.service("Arm"), "there is no service Arm");
  EXPECT_THROW(session.reserve("Arm"), ServiceError);

  const auto arm = make("Arm");
  session.publish(arm);
  EXPECT_EQ(session.services(), (std::vector<std::string>{"Arm", "Leg"}));
  EXPECT_EQ(session.service("Arm").value().backend(), arm);
  EXPECT_THROW(session.reserve("Arm"), ServiceError);
  EXPECT_THROW(session.publish(make("Arm")), ServiceError);
  EXPECT_EQ(session.find("Arm"), arm);

  session.withdraw("Arm");
  session.withdraw("Arm");
  EXPECT_EQ(session.services(), std::vector<std::string>{"Leg"});
  EXPECT_FALSE(arm->enter()) << "a withdrawn service refuses calls";
}

TEST_F(SessionTest, WaitEndsWithTheServiceTheTimeOutOrTheSession)
{
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
