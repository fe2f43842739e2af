// Parameter files damaged at every byte; folders and devices that take no file.
#include <sys/mman.h>
#include <unistd.h>

#include <cmath>

#include "varstruct/followers.h"
#include "varstruct/initial_values.h"
#include "varstruct/model_with_files.h"

namespace tolvan {
namespace {

using Damaged = ParameterFiles;

/// Every prefix and every single damaged byte: no crash, nothing but warnings, values whole or untouched.
TEST_F(Damaged, DamageAtEveryByte)
{
  m = SMALL_MODEL();
  m.random({{.factor = "site", .levels = 2, .function = "us"}, {.factor = "line", .levels = 2}});
  m.set_up(eh);
  m.model.parameters[2].value = 0.75;
  link_parameter(m.model, 2, 0, 1.0 / 3.0);
  set_followers(m.model);
  save();
  ASSERT_TRUE(clean(eh));
  // A file in memory: some thousand are read.
  const int unit = memfd_create("damaged", 0);
  ASSERT_GE(unit, 0);
  const std::string name = text("/proc/self/fd/", unit);
  for (const bool table : {false, true}) {
    const std::string whole = read_whole(table ? tsv() : rsv());
    const auto take = [&](const std::string& contents, VARIANCE_MODEL& model) {
      EXPECT_EQ(ftruncate(unit, 0), 0);
      EXPECT_EQ(pwrite(unit, contents.data(), contents.size(), 0), static_cast<ssize_t>(contents.size()));
      ERROR_HANDLER own;
      if (table)
        TSVIO_READ(own, name, files, model);
      else
        AIDCON_RETRIEVE(own, m.terms, name, files, model);
      return messages_text(own);
    };
    for (std::size_t k = 0; k < whole.size(); ++k) {
      VARIANCE_MODEL model = fresh();
      const std::string told = take(whole.substr(0, k), model);
      EXPECT_TRUE(same_values(model, fresh())) << k;
      EXPECT_TRUE(told.find("failed to") != std::string::npos || told.find("older version") != std::string::npos ||
                  told.find("pertains to") != std::string::npos)
          << k << told;
      for (const char byte : {'x', '9', '-', ' ', ',', '"', '\n', '\0', '\xff'}) {
        if (whole[k] == byte) continue;
        std::string damaged = whole;
        damaged[k] = byte;
        model = fresh();
        const std::string messages = take(damaged, model);
        EXPECT_EQ(messages.find('!'), std::string::npos) << messages;
        EXPECT_FALSE(messages.empty());
        for (const VARIANCE_PARAMETER& p : model.parameters) {
          EXPECT_TRUE(std::isfinite(p.value) && std::fabs(p.value) <= 1e9) << k << byte;
          EXPECT_LT(p.master, model.count());
        }
      }
    }
  }
  close(unit);
}

TEST_F(Damaged, EquationOrder)
{
  const SAVED_ORDER order{.order = {}, .dense = 1};
  SAVED_ORDER saved = order;
  for (std::int64_t e = m.terms.equations - 1; e-- > 0;) saved.order.push_back(static_cast<std::int32_t>(e));
  saved.order.push_back(static_cast<std::int32_t>(m.terms.equations) - 1);
  const std::string bytes = WRITE_EQUATION_ORDER(m.terms, saved);
  SAVED_ORDER back;
  ASSERT_TRUE(READ_EQUATION_ORDER(bytes, m.terms, back));
  EXPECT_EQ(back.order, saved.order);
  EXPECT_EQ(back.dense, 1);
  for (std::size_t k = 0; k < bytes.size(); ++k) {
    EXPECT_FALSE(READ_EQUATION_ORDER(bytes.substr(0, k), m.terms, back)) << k;
    std::string damaged = bytes;
    damaged[k] = static_cast<char>(damaged[k] ^ 1);
    if (READ_EQUATION_ORDER(damaged, m.terms, back)) {
      EXPECT_EQ(back.dense, 0);  // which the layout compares with its own
    }
  }
  EXPECT_FALSE(READ_EQUATION_ORDER(bytes + "x", m.terms, back));
  EXPECT_FALSE(is_order_of(saved, m.terms.equations, 0));
  m.terms.rows.back().equations += 1;
  EXPECT_FALSE(READ_EQUATION_ORDER(bytes, m.terms, back));
}

TEST_F(Damaged, FaultsAreToldOnceAndLeaveTheEarlierFile)
{
  save();
  const std::string before = read_whole(rsv());
  {
    const tolvan_test::SmallDevice device(64);
    m.model.parameters[0].value = 0.125;
    save();
    save();
  }
  EXPECT_EQ(read_whole(rsv()), before);
  EXPECT_FALSE(eh.terminate());
  EXPECT_EQ(messages_text(eh), text("3/2 failed to write .rsv file: ", rsv(), "\n9999/2 File too large\n",
                                    "9999/2 the fit goes on; its parameters are not kept in files\n"));

  ERROR_HANDLER own;
  files.fault_told = false;
  files.base = folder.path("missing/run");
  SAVE_PARAMETERS(own, m.model, parameter_values(m.model), files);
  EXPECT_TRUE(has_message(own, text("failed to open .rsv file: ", files.base, ".rsv")));
  EXPECT_FALSE(own.terminate());
}

}  // namespace
}  // namespace tolvan
