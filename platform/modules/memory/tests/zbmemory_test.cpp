#include <zbmemory.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zb/zbbroker.hpp>
#include <zb/zberror.hpp>
#include <zb/zbmemoryproxy.hpp>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

class Memory : public testing::Test
{
protected:
  Memory() { broker->createModule<ZB::ZBMemory>("ZBMemory"); }
  ~Memory() override { broker->shutdown(); }

  template <typename F> static std::string errorOf(const F& function)
  {
    try
    {
      function();
    }
    catch (const ZB::ZBError& error)
    {
      EXPECT_EQ(error.module(), "ZBMemory");
      return error.description();
    }
    ADD_FAILURE() << "no error";
    return {};
  }

  const std::shared_ptr<ZB::ZBBroker> broker = ZB::ZBBroker::create();
  const ZB::ZBMemoryProxy memory{broker};
};

TEST_F(Memory, dataIsKeptReplacedAndRemovedByKey)
{
  for (const auto& value : {vu::Value(1), vu::Value("text"), vu::Value(), vu::Value({{"nested", {1, 2}}})})
  {
    memory.insertData("b", value);
    EXPECT_EQ(memory.getData("b").value(), value);
  }
  memory.insertData("a", 1);
  EXPECT_THAT(memory.getDataListName(), ElementsAre("a", "b"));
  memory.removeData("b");
  EXPECT_THAT(memory.getDataListName(), ElementsAre("a"));
  EXPECT_THAT(errorOf([&] { memory.getData("b"); }), HasSubstr("\"b\""));
  EXPECT_THAT(errorOf([&] { memory.removeData("b"); }), HasSubstr("\"b\""));
}

TEST_F(Memory, eventKeepsItsLastValueAsDataAndMicroEventDoesNot)
{
  memory.declareEvent("Event");
  memory.declareEvent("MicroEvent");
  memory.declareEvent("Event");
  EXPECT_THAT(memory.getEventList(), ElementsAre("Event", "MicroEvent"));
  EXPECT_THAT(memory.getDataListName(), testing::IsEmpty());
  memory.raiseEvent("Event", 1);
  memory.raiseEvent("Event", 2);
  memory.raiseMicroEvent("MicroEvent", 3);
  memory.raiseMicroEvent("Event", 4);
  EXPECT_THAT(memory.getDataListName(), ElementsAre("Event"));
  EXPECT_EQ(memory.getData("Event").to<int>(), 2);
}

TEST_F(Memory, undeclaredKeyIsRefusedByName)
{
  memory.insertData("Unknown", 1);
  EXPECT_THAT(errorOf([&] { memory.raiseEvent("Unknown", 2); }), HasSubstr("\"Unknown\" has not been declared"));
  EXPECT_THAT(errorOf([&] { memory.raiseMicroEvent("Unknown", 2); }), HasSubstr("\"Unknown\" has not been declared"));
  EXPECT_EQ(memory.getData("Unknown").to<int>(), 1);
}

TEST_F(Memory, emptyNamesAreRefused)
{
  EXPECT_THAT(errorOf([&] { memory.declareEvent(""); }), HasSubstr("key is empty"));
  EXPECT_THAT(errorOf([&] { memory.insertData("", 1); }), HasSubstr("key is empty"));
  EXPECT_THAT(errorOf([&] { memory.subscribeToEvent("", "Module", "", "method"); }), HasSubstr("the module \"Module\""));
  EXPECT_THAT(errorOf([&] { memory.subscribeToEvent("key", "", "", "method"); }), HasSubstr("the key \"key\""));
  EXPECT_THAT(errorOf([&] { memory.subscribeToMicroEvent("key", "Module", "", ""); }), HasSubstr("the key \"key\""));
}

TEST_F(Memory, everyMethodIsDescribedWithItsParameters)
{
  const auto description = broker->session()->service("ZBMemory").value().description();
  EXPECT_EQ(description.methods.size(), 12U);
  for (const auto& method : description.methods)
  {
    SCOPED_TRACE(method.name);
    EXPECT_FALSE(method.description.empty());
    for (const auto& parameter : method.parameters)
      EXPECT_FALSE(parameter.name.empty() || parameter.description.empty());
    EXPECT_EQ(method.returns.has_value(), method.name.starts_with("get"));
  }
  ASSERT_EQ(description.signals.size(), 1U);
  EXPECT_EQ(description.signals[0].name, "eventRaised");
  EXPECT_THAT(description.signals[0].arguments, ElementsAre("string", "value"));
}

} // namespace
