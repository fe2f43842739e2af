// The fit object without a run: merging documents, settings, what the call frame does with exceptions.
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "api/api_options.h"
#include "api/call_frame.h"
#include "api/core_data.h"
#include "api/fit_object.h"
#include "base/text.h"
#include "support/checks.h"

namespace tolvan {
namespace {

/// The merged request of some documents and the last text, or the messages.
std::string merged(const std::vector<std::string>& documents, std::string_view last = "")
{
  TLV_OBJECT object;
  object.documents.elements = documents;
  ERROR_HANDLER eh;
  const auto request = AOT_GET_FULL_JSTR(eh, object, last);
  EXPECT_TRUE(eh.stack().entries.empty());
  EXPECT_EQ(request == nullptr, eh.terminate());
  return request ? json_text(*request) : messages_text(eh);
}

TEST(Merging, SettingsChildByChildListsGatheredTheRestOnce)
{
  EXPECT_EQ(merged({}), "{}");
  EXPECT_EQ(merged({R"({"title":"t"})", "{}"}, R"({"comments":"c"})"), R"({"title":"t","comments":"c"})");
  EXPECT_EQ(merged({R"({"options":{"extra":1,"brief":2}})", R"({"options":{"brief":{"a":1}}})"},
                   R"({"options":{"slow":3,"extra":[4]}})"),
            R"({"options":{"extra":[4],"brief":{"a":1},"slow":3}})");
  EXPECT_EQ(merged({R"({"api_options":{"debug_level":1}})", R"({"api_options":{"debug_level":2}})"}),
            R"({"api_options":{"debug_level":2}})");
  EXPECT_EQ(merged({R"({"dataset":{"name":"a"}})", R"({"dataset":[{"name":"b"},{"name":"c"}]})"},
                   R"({"dataset":{"name":"d"}})"),
            R"({"dataset":[{"name":"a"},{"name":"b"},{"name":"c"},{"name":"d"}]})");
  EXPECT_EQ(merged({R"({"vcc_constraint":["1 2"]})", R"({"vcc_constraint":"3 4"})"}),
            R"({"vcc_constraint":["1 2","3 4"]})");
  EXPECT_EQ(merged({R"({"pval":[1,2.5]})", R"({"pval":[3]})"}), R"({"pval":[1,2.5,3]})");
  EXPECT_EQ(merged({R"({"predict":{"classify":"a"},"predict":{"classify":"b"}})"},
                   R"({"predict":{"classify":"c"}})"),
            R"({"predict":{"classify":"a"},"predict":{"classify":"b"},"predict":{"classify":"c"}})");
}

TEST(Merging, Refusals)
{
  for (const char* last : {R"({"title":"u"})", R"({"model":{},"model":{}})", R"({"options":3})"}) {
    const std::string told = merged({R"({"title":"t","options":{}})"}, last);
    EXPECT_EQ(told.substr(0, 5), "!4/1 ") << told;
    EXPECT_NE(told.find("more than once"), std::string::npos) << told;
  }
  EXPECT_NE(merged({}, "{").find("!4/1 unable to read the additional JSON file: "), std::string::npos);
  EXPECT_NE(merged({"{}", "[]"}).find("2 stored JSON file"), std::string::npos);
}

TEST(Merging, DocumentsOfDatasetsComeFirst)
{
  TLV_OBJECT object;
  object.documents.elements = {R"({"dataset":{"name":"plain"}})"};
  object.datasets.datasets.push_back({.name = "plain"});
  object.datasets.datasets.push_back({.name = "own", .document = R"({"dataset":{"name":"own"}})"});
  ERROR_HANDLER eh;
  EXPECT_EQ(json_text(*AOT_GET_FULL_JSTR(eh, object, " \n")),
            R"({"dataset":[{"name":"own"},{"name":"plain"}]})");
  EXPECT_TRUE(clean(eh));
}

TEST(Settings, AreTakenUpFromBothPlacesAndRemovedFromOne)
{
  JsonError error;
  const auto root = parse_json(R"({"api_options":{"debug_level":5,"clean_up_sa_files":false},)"
                               R"("options":{"tmp_file_root":"R","brief":1}})",
                               error);
  TLV_OPTIONS options;
  ERROR_HANDLER eh;
  AOT_CHECK_FOR_API_OPTIONS_FROM_JPTR(eh, *root, options);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(json_text(*root), R"({"options":{"tmp_file_root":"R","brief":1}})");
  EXPECT_EQ(AOPT_TO_JSTR(eh, options),
            R"({"options":{"clean_up_sa_files":false,"debug_level":5,"tmp_file_root":"R"}})");
  EXPECT_TRUE(options.root_named);
  EXPECT_FALSE(options.clean_up_asked);

  for (const char* bad :
       {R"({"options":7})", R"({"api_options":[]})", R"({"options":{"debug_level":"high"}})",
        R"({"options":{"tmp_file_root":4}})", "3", ""}) {
    ERROR_HANDLER refused;
    AOT_CHECK_FOR_API_OPTIONS_FROM_JSTR(refused, bad, options);
    EXPECT_TRUE(refused.terminate()) << bad;
    EXPECT_EQ(options.debug_level, 5) << bad;
  }
}

TEST(Settings, DebugPrintsByName)
{
  EXPECT_TRUE(debug_print_named(1, "Standardised_json"));
  EXPECT_TRUE(debug_print_named(512, "DATA_SUMMARY  "));
  EXPECT_FALSE(debug_print_named(511, "data_summary"));
  EXPECT_FALSE(debug_print_named(1023, "COFFEE"));
  const char* const in_bit_order[] = {
      "STANDARDISED_JSON", "USER_DATA",       "MODEL_STRUCTURES",     "EINFO",   "INPUT_JSON",
      "ALL_OUTPUT_FULL",   "ALL_OUTPUT_INFO", "INTERMEDIATE_TIMINGS", "TIMINGS", "DATA_SUMMARY"};
  for (int bit = 0; bit < 10; ++bit) EXPECT_TRUE(debug_print_named(1 << bit, in_bit_order[bit]));
  EXPECT_EQ(run_mode_name(2), "API");
  EXPECT_EQ(run_mode_name(7), " (<INVALID>7)");
}

TEST(CallFrame, TurnsWhatIsThrownIntoMessages)
{
  void* handle = nullptr;
  ERROR_HANDLER eh;
  ALLOCATE_HANDLE(eh, HandleStatus::tlv, &handle);
  ASSERT_TRUE(clean(eh));
  std::int32_t status = 77;
  const auto stored = [&] {
    return messages_text(static_cast<TLV_OBJECT*>(static_cast<HANDLE*>(handle)->object)->errors);
  };
  const auto frame = [&](auto work) {
    call_frame("CTLV_TEST", &status, &handle, [&](CALL& call) {
      const Frame outer{call.eh, "OUTER"};
      const Frame inner{call.eh, "INNER"};
      work();
    });
    // The trail was unwound to the call itself.
    const auto& errors = static_cast<TLV_OBJECT*>(static_cast<HANDLE*>(handle)->object)->errors;
    EXPECT_EQ(errors.stack().entries, std::vector<std::string_view>{"CTLV_TEST"});
  };
  frame([] { throw std::bad_alloc(); });
  EXPECT_EQ(status, 4);
  EXPECT_EQ(stored().substr(0, 33), "!4/-999 Memory allocation failure");
  frame([] { std::vector<int>().reserve(static_cast<std::size_t>(-1)); });
  EXPECT_EQ(status, 4);
  frame([] { throw std::runtime_error("of a library"); });
  EXPECT_EQ(status, 999);
  EXPECT_NE(stored().find("unexpected exception: of a library"), std::string::npos);
  frame([] { throw 17; });
  EXPECT_EQ(status, 999);
  call_frame("CTLV_TEST", &status, &handle, [](CALL&) {});
  EXPECT_EQ(status, 0);
  EXPECT_NE(stored().find("unexpected exception"), std::string::npos) << "a clean call leaves the store";
  call_frame("CTLV_TEST", nullptr, nullptr, [](CALL&) { FAIL() << "work without an object"; });
  DEALLOCATE_HANDLE(eh, &handle);
}

TEST(Handles, Names)
{
  ERROR_HANDLER eh;
  EXPECT_EQ(XXX_HANDLE_NAME(eh, HandleStatus::invalid), "an invalid object");
  EXPECT_EQ(XXX_HANDLE_NAME(eh, HandleStatus::null, true), "handle_is_null");
  EXPECT_EQ(XXX_HANDLE_NAME(eh, static_cast<HandleStatus>(5)), "an unknown object");
  EXPECT_EQ(XXX_HANDLE_NAME(eh, HandleStatus::ainv, true), "handle_for_ainv_object");
  CHECK_OBJECT_POINTER(eh, {.status = HandleStatus::ainv});
  CHECK_OBJECT_POINTER(eh, {.status = HandleStatus::unknown});
  EXPECT_EQ(messages_text(eh),
            "!4/3 unassociated pointer has been supplied for an ainv object\n"
            "!4/3 unknown pointer type, type = 0\n");
}

}  // namespace
}  // namespace tolvan
