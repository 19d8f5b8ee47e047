#include <gmock/gmock.h>

#include <zb/zbvalue.hpp>

using vu::Value;
using ZB::ZBValue;

TEST(ZBValue, HoldsWhatItIsMadeOfConvertsItWithoutGuessingAndTravelsAsThePlainValue)
{
  EXPECT_TRUE(static_cast<bool>(ZBValue(true)));
  EXPECT_EQ(static_cast<int>(ZBValue(7)), 7);
  EXPECT_EQ(static_cast<float>(ZBValue(1.5)), 1.5F);
  EXPECT_EQ(static_cast<double>(ZBValue(2)), 2.0);
  EXPECT_EQ(static_cast<std::string>(ZBValue("text")), "text");
  EXPECT_TRUE(ZBValue().value().is_null());
  ZBValue number(3);
  EXPECT_THROW(static_cast<void>(static_cast<std::string&>(number)), vu::ConversionError);
  EXPECT_THROW(static_cast<void>(static_cast<const std::string&>(std::as_const(number))), vu::ConversionError);

  const ZBValue list(std::vector<int>{1, 2});
  EXPECT_EQ(Value::object({{"list", list}}).dump(), R"({"list":[1,2]})");
  EXPECT_EQ(vu::fromValue<ZBValue>(Value::array({1, 2})), list);
  EXPECT_EQ(vu::typeName<ZBValue>(), "value");
}

TEST(ZBValue, GrowsIntoAnArrayAndRefusesIndicesOutOfRange)
{
  ZBValue list;
  EXPECT_EQ(list.getSize(), 0);
  list.arrayPush("a");
  list.arrayPush(ZBValue(Value::array({1, 2})));
  list.arrayPush(list);
  EXPECT_EQ(list.value(), Value::parse(R"(["a", [1, 2], ["a", [1, 2]]])"));
  EXPECT_EQ(list.getSize(), 3);
  EXPECT_EQ(list[1].getSize(), 2);
  for (const int index : {-1, 3})
    EXPECT_THAT([&] { list[index]; },
                testing::ThrowsMessage<std::out_of_range>("index " + std::to_string(index) + " is out of range: the value has 3 elements"));
  EXPECT_EQ(ZBValue("text").getSize(), 0);
  EXPECT_THROW(ZBValue("text")[0], std::out_of_range);
  EXPECT_THROW(ZBValue("text").arrayPush(1), vu::ConversionError);
}

TEST(ZBValue, ElementRefersIntoItsArrayAndKeepsItWhileACopyIsApart)
{
  auto list = std::make_unique<ZBValue>(Value::array({"first", Value::array({"inner"})}));
  const ZBValue copy = *list;
  std::string& text = static_cast<std::string&>((*list)[0]);
  text = "changed by the reference of an element that is gone";
  EXPECT_EQ((*list)[0].to<std::string>(), "changed by the reference of an element that is gone");
  (*list)[1].arrayPush(2);
  EXPECT_EQ(list->value()[1], Value::array({"inner", 2}));
  EXPECT_EQ(copy.value(), Value::array({"first", Value::array({"inner"})}));

  ZBValue element = (*list)[1];
  const ZBValue inner = element[0];
  *list = ZBValue("something else");
  list.reset();
  element = 5;
  EXPECT_EQ(inner.to<std::string>(), "inner");
  EXPECT_EQ(element, ZBValue(5));
}
