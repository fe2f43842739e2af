// The error handler: types and codes, blocks, duplicates, the routine stack, print and JSON forms, short
// memory.
#include "api/error_handler.h"

#include <gtest/gtest.h>

#include "base/json.h"
#include "base/memory.h"
#include "base/text.h"
#include "support/checks.h"
#include "support/failing_memory.h"

namespace tolvan {
namespace {

std::string captured(const auto& work)
{
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}

TEST(ErrorHandler, TypesAndCodes)
{
  struct Case {
    NewMessage given;
    std::string stored;  // as messages_text tells it
    bool terminates;
    std::int64_t status;
  };
  const Case cases[] = {
      {{.text = "a", .ecode = Ecode::invalid_input}, "!4/3 a\n", true, 4},
      {{.text = "a", .ecode = Ecode::invalid_syntax}, "!4/6 a\n", true, 4},
      {{.text = "a", .ecode = Ecode::io}, "4/7 a\n", false, -4},
      {{.text = "a"}, "4/- a\n", false, -4},
      {{.text = "  "}, "", false, 0},
      {{.text = "a", .etype = Etype::error, .ecode = Ecode::invalid_input}, "4/3 a\n", false, -4},
      {{.text = "a", .etype = Etype::error, .terminate = true}, "!4/- a\n", true, 4},
      {{.text = "a", .etype = Etype::internal}, "!999/- a\n", true, 999},
      {{.text = "a", .etype = Etype::internal, .terminate = false}, "999/- a\n", false, -999},
      {{.text = "a", .ecode = Ecode::no_error}, "", false, 0},
      {{.text = "a", .etype = Etype::not_set, .ecode = Ecode::not_set}, "4/- a\n", false, -4},
      {{.ecode = Ecode::user_abort, .iv = 2}, "!5/8 User sent an abort code, code = 2\n", true, 5},
      {{.ecode = Ecode::user_finish, .iv = -1}, "5/9 User sent a finish code, code = -1\n", false, -5},
      {{.ecode = Ecode::alloc_fail}, "!4/-999 Memory allocation failure\n", true, 4},
      {{.ecode = Ecode::alloc_fail, .iv = 80},
       "!4/-999 Memory allocation failure, failed to allocate memory of size " + std::string(28, ' ') +
           "80\n",
       true,
       4},
      {{.text = "a", .etype = Etype::continuation}, "", false, 0},
  };
  for (const Case& each : cases) {
    ERROR_HANDLER eh;
    eh.EH_ADD_MESSAGE(each.given);
    EXPECT_EQ(messages_text(eh), each.stored);
    EXPECT_EQ(eh.terminate(), each.terminates) << each.stored;
    EXPECT_EQ(eh.EH_STATUS(), each.status) << each.stored;
  }
  ERROR_HANDLER eh;
  eh.EH_ADD_MESSAGE({.text = "a", .ecode = Ecode::no_error, .terminate = true});
  EXPECT_TRUE(eh.terminate()) << "no record, but the terminate argument counts";
  EXPECT_EQ(eh.EH_TO_JSTR(),
            R"({"error_information":{"terminate":true,"terminate_etype":4,"terminate_code":0}})");
}

TEST(ErrorHandler, StatusIsTheLargestTypeWithoutContinuations)
{
  ERROR_HANDLER eh;
  EXPECT_EQ(eh.EH_STATUS(), 0);
  eh.warning("w");
  eh.note("n");
  eh.continuation("c");
  EXPECT_EQ(eh.EH_STATUS(), -3);
  eh.error("e");
  EXPECT_EQ(eh.EH_STATUS(), 4);
  eh.EH_ADD_MESSAGE({.text = "i", .etype = Etype::info});
  EXPECT_EQ(eh.EH_STATUS(), 6);
  eh.EH_CLEAR();
  EXPECT_TRUE(clean(eh));
}

TEST(ErrorHandler, BlocksPrefixAndRoutine)
{
  ERROR_HANDLER eh;
  const Frame here{eh, "OUTER"};
  eh.set_prefix("set-up: ");
  {
    const Frame inner{eh, "INNER"};
    eh.error("first", Ecode::too_small);
  }
  eh.continuation("more");
  eh.clear_prefix();
  eh.EH_ADD_MESSAGE({.text = "second", .etype = Etype::warning, .routine = "NAMED"});
  EXPECT_EQ(messages_text(eh), "!4/5 set-up: first\n9999/5 more\n3/- second\n");
  const auto& held = eh.messages();
  EXPECT_FALSE(held[0].last_in_block);
  EXPECT_TRUE(held[1].last_in_block);
  EXPECT_EQ(held[0].routine, "INNER");
  EXPECT_EQ(held[1].routine, "INNER") << "continuations inherit it";
  EXPECT_EQ(held[2].routine, "NAMED");
  EXPECT_EQ(held[0].stack, (std::vector<std::string_view>{"OUTER", "INNER"}));
  EXPECT_EQ(eh.EH_LAST_MESSAGE(), "second");
}

TEST(ErrorHandler, DuplicatesAreTextTypeCodeRoutineAndId)
{
  ERROR_HANDLER eh;
  bool is_duplicate = false;
  NewMessage m{
      .text = "same", .ecode = Ecode::user_finish, .iv = 1, .unique = true, .is_duplicate = &is_duplicate};
  eh.EH_ADD_MESSAGE(m);
  EXPECT_FALSE(is_duplicate);
  m.iv = 2;
  m.rv = 3.0;
  eh.EH_ADD_MESSAGE(m);
  EXPECT_TRUE(is_duplicate);
  EXPECT_EQ(eh.count(), 1);
  m.id = 7;
  eh.EH_ADD_MESSAGE(m);
  EXPECT_EQ(eh.count(), 2);
  m.unique = false;
  eh.EH_ADD_MESSAGE(m);
  EXPECT_EQ(eh.count(), 3) << "told, but kept";
}

TEST(ErrorHandler, GrowsByTwentyWithoutLoss)
{
  ERROR_HANDLER eh;
  for (int k = 1; k <= 100; ++k) {
    eh.warning(text("message ", k));
    EXPECT_EQ(eh.messages().capacity(), static_cast<std::size_t>((k + 19) / 20 * 20));
  }
  for (int k = 1; k <= 100; ++k) EXPECT_EQ(eh.EH_GET_MESSAGE(k)->message, text("message ", k));
  EXPECT_EQ(eh.EH_GET_MESSAGE(0), nullptr);
  EXPECT_EQ(eh.EH_GET_MESSAGE(101), nullptr);
}

TEST(ErrorHandler, ReraiseDowngradesTheLastTerminatingMessageOfTheLocation)
{
  ERROR_HANDLER eh;
  eh.EH_ADD_MESSAGE({.text = "one", .ecode = Ecode::io_error, .location = 1});
  eh.EH_ADD_MESSAGE({.text = "two", .ecode = Ecode::io_error, .location = 2});
  eh.EH_RERAISE({.text = "one, handled", .etype = Etype::warning, .location = 1});
  EXPECT_EQ(messages_text(eh), "4/2 one\n!4/2 two\n3/- one, handled\n");
  EXPECT_FALSE(eh.terminate());
  EXPECT_TRUE(eh.messages()[0].adjusted);
  EXPECT_EQ(eh.EH_STATUS(), -4);
  eh.EH_CLEAR(1);
  EXPECT_EQ(messages_text(eh), "!4/2 two\n");
}

TEST(ErrorHandler, AddsAnotherStore)
{
  ERROR_HANDLER first;
  ERROR_HANDLER other;
  other.EH_ADD_MESSAGE(
      {.text = "bad", .ecode = Ecode::io_error, .iv = 5, .rv = 0.5, .routine = "R", .location = 3});
  other.continuation("worse");
  first.note("n");
  first.EH_ADD_ALL(other);
  first.EH_ADD_ALL(first);
  EXPECT_EQ(messages_text(first), "1/- n\n!4/2 bad\n9999/2 worse\n1/- n\n!4/2 bad\n9999/2 worse\n");
  EXPECT_EQ(first.messages()[1].rv, 0.5);
  EXPECT_EQ(first.messages()[1].location, 3);
  EXPECT_EQ(first.EH_STATUS(), 4);
}

TEST(RoutineStack, The321stNameSwitchesItOffOnce)
{
  ERROR_HANDLER eh;
  for (int k = 0; k < 320; ++k) eh.EST_ADD("NAME");
  EXPECT_EQ(eh.stack().entries.size(), 320u);
  EXPECT_EQ(captured([&] { eh.EST_ADD("LAST"); }),
            "Internal Error: Stack issues in ERROR_HANDLER_TYPE:EST_ADD\n"
            "       RNAME  = LAST\n"
            "   Stack size = 320\n"
            "Clearing stack and ignoring it going forward\n");
  EXPECT_EQ(captured([&] {
              eh.EST_ADD("X");
              eh.EST_REMOVE("Y");
              eh.warning("w");
            }),
            "");
  EXPECT_TRUE(eh.stack().entries.empty());
  EXPECT_TRUE(eh.messages()[0].routine.empty());
}

TEST(RoutineStack, AWrongPopSwitchesItOff)
{
  ERROR_HANDLER eh;
  eh.EST_ADD("A");
  eh.EST_ADD("B");
  EXPECT_EQ(eh.EST_LEVEL(1), "A");
  EXPECT_EQ(eh.EST_LEVEL(2), "B");
  EXPECT_EQ(eh.EST_LEVEL(3), "UNKNOWN");
  EXPECT_EQ(captured([&] { eh.EST_REMOVE("A"); }),
            "Internal Error: Stack issues in ERROR_HANDLER_TYPE:EST_REMOVE\n"
            "   RNAME = A\n"
            "   Stack size = 2\n"
            "   Top of Stack = B\n"
            "Clearing stack and ignoring it going forward\n");
  ERROR_HANDLER empty;
  EXPECT_EQ(captured([&] { empty.EST_REMOVE("A"); }),
            "Internal Error: Stack issues in ERROR_HANDLER_TYPE:EST_REMOVE\n"
            "   RNAME = A\n"
            "   Stack size = 0\n"
            "Clearing stack and ignoring it going forward\n");
}

TEST(RoutineStack, ModesSayWhichMessagesCarryIt)
{
  for (std::int64_t mode : {0, 1, 2}) {
    ERROR_HANDLER eh;
    eh.set_stack_mode(mode);
    eh.EST_ADD("A");
    eh.warning("w");
    eh.error("e");
    EXPECT_EQ(eh.messages()[0].stack.size(), mode == 2 ? 1u : 0u);
    EXPECT_EQ(eh.messages()[1].stack.size(), mode >= 1 ? 1u : 0u);
  }
}

TEST(ErrorHandler, PrintForm)
{
  ERROR_HANDLER eh;
  const Frame here{eh, "READER"};
  eh.EH_ADD_MESSAGE({.text = "short row", .ecode = Ecode::invalid_input, .iv = 12, .rv = 0.25});
  eh.continuation("line 4");
  eh.EH_ADD_MESSAGE({.text = "plain", .etype = Etype::info});
  eh.continuation("plain too");
  eh.EH_ADD_MESSAGE({.text = "skipped", .etype = Etype::unused});
  eh.EH_ADD_MESSAGE({.text = "elsewhere", .etype = static_cast<Etype>(77), .location = 9});
  EXPECT_EQ(eh.EH_PRINT_TEXT(),
            "   Error: short row\n"
            "        : line 4\n"
            "\n"
            "plain\n"
            "plain too\n"
            "\n"
            " Unknown: elsewhere\n");
  EXPECT_EQ(eh.EH_PRINT_TEXT(false, true, true, 9),
            "Debug Level   : \n"
            "Terminate     : T\n"
            "Terminated in : READER\n"
            "Terminate etype: error\n"
            "Terminate code: ehc_invalid_input\n"
            "----\n"
            " Unknown: elsewhere\n");
  ERROR_HANDLER one;
  one.set_stack_mode(1);
  one.EH_ADD_MESSAGE(
      {.text = "odd", .etype = Etype::internal, .iv = 12, .rv = 0.25, .routine = "R", .id = 3});
  EXPECT_EQ(one.EH_PRINT_TEXT(true),
            "Internal: odd (error thrown in R)\n"
            "          MSG ID   :            1\n"
            "          CODE     : ehc_not_defined\n"
            "          LOCATION :            0\n"
            "          ID       :            3\n"
            "          IV       :           12\n"
            "          RV      :  0.25000000    \n"
            "          ADJUSTED : F\n"
            "          TERMINATE: T\n"
            "Stack Information: none available\n");
  EXPECT_EQ(captured([&] { one.EH_PRINT(); }), one.EH_PRINT_TEXT());
}

TEST(ErrorHandler, JsonForm)
{
  ERROR_HANDLER eh;
  EXPECT_EQ(eh.EH_TO_JSTR(), R"({"error_information":{"terminate":false}})");
  eh.EST_ADD("CTLV_PROCESS");
  eh.EST_ADD("READER");
  eh.EH_ADD_MESSAGE(
      {.text = "bad", .ecode = Ecode::invalid_input, .iv = 2, .rv = 1.0, .id = 1, .location = 3});
  eh.EST_REMOVE("READER");
  eh.EH_ADD_MESSAGE({.etype = Etype::note});
  eh.EH_ADD_MESSAGE({.text = " ", .etype = Etype::note});
  EXPECT_EQ(
      eh.EH_TO_JSTR(),
      R"({"error_information":{"terminate":true,"terminated_in":"READER","terminate_etype":4,"terminate_code":3,)"
      R"("messages":[{"etype":4,"ecode":3,"ecode_string":"ehc_invalid_input","id":1,"iv":2,"location":3,"rv":1.0,)"
      R"("message":"bad","routine":"READER","stack":["CTLV_PROCESS","READER"],"last_in_block":true,)"
      R"("terminate":true,"adjusted":false},)"
      R"({"etype":1,"ecode":-987654,"ecode_string":"ehc_not_defined","message":"none available",)"
      R"("stack":["CTLV_PROCESS"],"last_in_block":true,"terminate":false,"adjusted":false},)"
      R"({"etype":1,"ecode":-987654,"ecode_string":"ehc_not_defined","routine":"CTLV_PROCESS",)"
      R"("stack":["CTLV_PROCESS"],"last_in_block":true,"terminate":false,"adjusted":false}],)"
      R"("stack":["CTLV_PROCESS"]}})");
}

// Whatever allocation fails inside, nothing escapes, a failure stays a failure, and the stack is in order.
TEST(ErrorHandler, ShortOfMemoryItNeverFailsItsCaller)
{
  const std::string long_text(200, 'x');
  bool struck = true;
  for (std::int64_t good = 0; struck; ++good) {
    ERROR_HANDLER eh;
    std::string first = long_text;
    std::string second = long_text;
    const NewMessage third{.text = long_text, .ecode = Ecode::io_error, .unique = true};
    {
      const FailingMemory failing(good);
      const Frame here{eh, "SOME_ROUTINE_WITH_A_LONG_NAME"};
      eh.warning(std::move(first));
      eh.continuation(std::move(second));
      EXPECT_EQ(eh.EH_STATUS() == 0, eh.count() == 0);
      eh.EH_ADD_MESSAGE(third);
      eh.out_of_memory(1000);
      struck = failing.struck();
      EXPECT_TRUE(eh.terminate());
      EXPECT_EQ(eh.EH_STATUS(), 4);
    }
    EXPECT_TRUE(eh.stack().entries.empty());
    if (!struck) {
      EXPECT_EQ(eh.count(), 4);
    }
  }
}

TEST(ErrorHandler, AFullStoreGivesUpItsLeastMessage)
{
  ERROR_HANDLER eh;
  eh.note("first note");
  eh.note("last note");
  eh.continuation("of the last note");
  for (int k = 4; k <= 20; ++k) eh.warning(text("warning ", k));
  const FailingMemory failing(0);
  eh.note("too low");
  EXPECT_EQ(eh.count(), 20) << "not above the lowest type: dropped";
  eh.error("one");
  EXPECT_EQ(eh.count(), 19) << "in place of the later note and its continuation";
  eh.error("two");
  eh.error("three");
  EXPECT_EQ(eh.EH_GET_MESSAGE(1)->message, "warning 4") << "then the first note went";
  eh.error("four");
  EXPECT_EQ(eh.count(), 20);
  EXPECT_EQ(eh.EH_GET_MESSAGE(20)->message, "four");
  EXPECT_EQ(eh.EH_GET_MESSAGE(16)->message, "warning 19") << "then the later warning";
}

TEST(Memory, SizesAreCheckedAndFailuresBecomeMessages)
{
  std::int64_t product = 0;
  EXPECT_TRUE(multiply_sizes(3037000499, 3037000499, product));
  EXPECT_EQ(product, 9223372030926249001);
  EXPECT_FALSE(multiply_sizes(3037000500, 3037000500, product));
  EXPECT_FALSE(multiply_sizes(-1, 0, product));
  std::vector<double> a;
  for (std::int64_t n : {std::int64_t{-1}, std::int64_t{1} << 50, std::int64_t{1} << 62}) {
    ERROR_HANDLER eh;
    EXPECT_FALSE(resize(eh, a, n));
    EXPECT_EQ(eh.EH_STATUS(), 4);
    EXPECT_TRUE(has_message(eh, "Memory allocation failure, failed to allocate memory of size"));
    EXPECT_EQ(has_message(eh, "UNKNOWN"), n != std::int64_t{1} << 50);
  }
  ERROR_HANDLER eh;
  EXPECT_TRUE(resize(eh, a, 3, 2.0));
  EXPECT_EQ(a, (std::vector<double>{2.0, 2.0, 2.0}));
  EXPECT_TRUE(clean(eh));
  EXPECT_GT(machine_memory_bytes(), 1'000'000);
}

}  // namespace
}  // namespace tolvan
