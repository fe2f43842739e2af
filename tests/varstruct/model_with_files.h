// A model with parameter files of its own, for tests of them.
#pragma once

#include <string>

#include "base/text.h"
#include "support/files.h"
#include "varstruct/parameter_files.h"
#include "varstruct/small_model.h"

namespace tolvan {

using tolvan_test::changed;
using tolvan_test::read_whole;
using tolvan_test::write_whole;

/// An unstructured term, a factor model of some factors, a plain variance and the residual.
struct ParameterFiles : testing::Test {
  TempFolder folder;
  SMALL_MODEL m;
  PARAMETER_FILES files;
  ERROR_HANDLER eh;

  void SetUp() override
  {
    set_up(m, 3, "fa", 2);
    files.in_use = true;
    files.base = folder.path("run");
    files.response = "y";
  }
  void set_up(SMALL_MODEL& model, std::int64_t sites, const std::string& factor_function, std::int64_t factors)
  {
    ERROR_HANDLER own;
    model.random({{.factor = "site", .levels = sites, .function = "us"}, {.factor = "line", .levels = 2}});
    model.random({{.factor = "env", .levels = 4 + factors, .function = factor_function}, {.factor = "gen", .levels = 3}});
    model.factors.row(model.factors.count() - 1).order = factors;
    model.random({{.factor = "block", .levels = 6}});
    model.set_up(own);
    ASSERT_TRUE(clean(own));
    double x = 0.5;
    for (VARIANCE_PARAMETER& p : model.model.parameters) {
      if (&p - model.model.parameters.data() != model.model.residual_parameter) p.value = p.start = (x += 0.015625);
    }
  }
  std::string rsv() const { return files.base + ".rsv"; }
  std::string tsv() const { return files.base + ".tsv"; }
  void save() { SAVE_PARAMETERS(eh, m.model, parameter_values(m.model), files); }
  /// The model as another run sets it up: its own values.
  VARIANCE_MODEL fresh() const
  {
    VARIANCE_MODEL model = m.model;
    for (VARIANCE_PARAMETER& p : model.parameters) {
      if (&p - model.parameters.data() != model.residual_parameter) p.value = p.start = 0.25;
    }
    return model;
  }
  /// Reads an .rsv file, changed in one place, into a fresh model and gives the messages.
  std::string retrieve(const std::string& contents, VARIANCE_MODEL& model)
  {
    write_whole(rsv(), contents);
    ERROR_HANDLER own;
    AIDCON_RETRIEVE(own, m.terms, rsv(), files, model);
    return messages_text(own);
  }
  std::string read_table(const std::string& contents, VARIANCE_MODEL& model, const char* name = "run.tsv")
  {
    write_whole(folder.path(name), contents);
    ERROR_HANDLER own;
    TSVIO_READ(own, folder.path(name), files, model);
    return messages_text(own);
  }
};

inline bool same_values(const VARIANCE_MODEL& a, const VARIANCE_MODEL& b)
{
  return near(parameter_values(a), parameter_values(b), 1e-8, 1e-12);
}

}  // namespace tolvan
