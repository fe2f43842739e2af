// Tables of parameters: what is written, read back, edited and refused; the files that a run takes up.
#include "varstruct/parameter_files.h"

#include <functional>

#include "varstruct/followers.h"
#include "varstruct/initial_values.h"
#include "varstruct/model_with_files.h"

namespace tolvan {
namespace {

using Tables = ParameterFiles;

/// One field of one row of a table, counted from 0 behind the label, put in the place of another.
std::string with_field(const std::string& table, std::int64_t number, int field, const std::string& value)
{
  std::string out;
  for (const std::string& line : split(table, '\n')) {
    if (!line.starts_with(edit_i(number, 4) + ", \"")) {
      out += line + "\n";
      continue;
    }
    const std::size_t label = line.find('"', line.find('"') + 1);
    std::vector<std::string> fields = split(line.substr(label + 2), ',');
    fields[static_cast<std::size_t>(field)] = " " + value;
    out += line.substr(0, label + 1) + "," + join(fields, ",") + "\n";
  }
  out.pop_back();
  return out;
}

TEST_F(Tables, RoundTrip)
{
  save();
  EXPECT_TRUE(clean(eh));
  for (const bool table : {false, true}) {
    VARIANCE_MODEL model = fresh();
    ERROR_HANDLER own;
    if (table)
      EXPECT_TRUE(TSVIO_READ(own, tsv(), files, model));
    else
      AIDCON_RETRIEVE(own, m.terms, rsv(), files, model);
    EXPECT_TRUE(same_values(model, m.model));
    EXPECT_EQ(messages_text(own), table ? "1/- restart values taken from " + tsv() + " and 0 parameter constraint codes were changed\n"
                                        : "1/- restart values taken from " + rsv() + "\n");
  }
}

TEST_F(Tables, ValuesKeepTheirDigits)
{
  const std::vector<double> hard = {3.0e-9, -1.23456789e-12, 987654321.25, -99999999.5, 0.0, 123456.78901234, 1e-300};
  for (std::size_t k = 0; k < hard.size(); ++k) m.model.parameters[k].value = hard[k];
  save();
  VARIANCE_MODEL model = fresh();
  AIDCON_RETRIEVE(eh, m.terms, rsv(), files, model);
  for (std::size_t k = 0; k < hard.size(); ++k) EXPECT_TRUE(near(model.parameters[k].value, hard[k], 1e-8)) << hard[k];
  model = fresh();
  EXPECT_TRUE(TSVIO_READ(eh, tsv(), files, model));
  for (std::size_t k = 0; k < hard.size(); ++k) EXPECT_TRUE(near(model.parameters[k].value, hard[k], 1e-8)) << hard[k];
}

TEST_F(Tables, LookAsTheyShould)
{
  SMALL_MODEL plain;
  plain.random({{.factor = "block", .levels = 6}});
  plain.random({{.factor = "plot", .levels = 3}});
  plain.set_up(eh);
  plain.model.parameters[0].value = 0.25;
  plain.model.parameters[0].constraint = Constraint::U;
  link_parameter(plain.model, 1, 0, 0.5);
  set_followers(plain.model);
  SAVE_PARAMETERS(eh, plain.model, parameter_values(plain.model), files);
  EXPECT_EQ(read_whole(rsv()),
            "This .rsv file holds parameter values between runs of TOLVAN and\n"
            "is not normally modified by the User.  The current values of the\n"
            "the variance parameters are listed as a block on the following lines.\n"
            "They are then listed again with identifying information\n"
            "in a form that the user may edit.\n"
            "Response y\n"
            "       3\n"
            "  0.25000000      0.12500000       1.0000000    \n"
            "RSTRUCTURE        \n"
            " STRUCTURE            6    0    0    1    1  block;IDV\n"
            "   1, G, U,       0.25000000   0     1.000000\n"
            " STRUCTURE            3    0    0    1    1  plot;IDV\n"
            "   2, G, C,       0.12500000  -1     0.500000\n"
            " VARIANCE            24    0    0    1    1  units;IDV\n"
            "   3, V, P,       1.00000000   0     1.000000\n");
  EXPECT_EQ(read_whole(tsv()),
            "# This .tsv file is a mechanism for resetting initial parameter values\n"
            "# by changing the values here and rerunning the job with !CONTINUE\n"
            "# You may not change values in the first 3 fields\n"
            "#         or RP fields where RP_GN is negative.\n"
            "Response y\n"
            "# Fields are:\n"
            "# GN, Term, Type, PSpace, Initial_value, RP_GN, RP_scale.\n"
            "   1, \"block;IDV_V\", G, U,       0.25000000,    1,    1\n"
            "   2, \"plot;IDV_V \", G, C,       0.12500000,    1,   0.5000\n"
            "   3, \"units;IDV_V\", V, P,       1.00000000,    3,    1\n");
  TSVIO_WRITE(eh, static_cast<TableFile>(2), plain.model, parameter_values(plain.model), tsv(), "y");
  EXPECT_TRUE(has_message(eh, "unexpected value for IOP"));
}

TEST_F(Tables, TableIsEdited)
{
  save();
  const std::string table = read_whole(tsv());
  struct Case {
    std::int64_t number;
    int field;
    const char* value;
    double becomes;
    char letter;
    int changed;
  };
  for (const Case& c : {Case{2, 2, "0.75", 0.75, 'P', 0}, Case{1, 1, "F", 0.515625, 'F', 1}, Case{1, 1, "P", 0.515625, 'P', 0},
                        Case{3, 1, "Z", 0.0, 'Z', 1}, Case{1, 1, "H", 0.515625, 'P', 0}, Case{1, 1, "B", 0.515625, 'B', 1}}) {
    VARIANCE_MODEL model = fresh();
    const std::string told = read_table(with_field(table, c.number, c.field, c.value), model);
    const VARIANCE_PARAMETER& p = model.parameters[static_cast<std::size_t>(c.number - 1)];
    EXPECT_NE(told.find(text(" and ", c.changed, " parameter constraint codes were changed")), std::string::npos) << told;
    EXPECT_TRUE(near(p.value, c.becomes, 1e-8)) << c.value;
    EXPECT_EQ(constraint_letters[static_cast<std::size_t>(p.constraint)], c.letter) << c.value;
  }
  // A relation is added, and taken away again.
  VARIANCE_MODEL model = fresh();
  read_table(with_field(with_field(table, 2, 3, "1"), 2, 4, "2.0"), model);
  EXPECT_EQ(model.parameters[1].master, 0);
  EXPECT_EQ(model.parameters[1].constraint, Constraint::C);
  EXPECT_TRUE(near(model.parameters[1].value, 2.0 * 0.515625, 1e-8));
  read_table(table, model);
  EXPECT_EQ(model.parameters[1].master, -1);
  EXPECT_EQ(model.parameters[1].constraint, Constraint::P);
}

TEST_F(Tables, TableIsRefused)
{
  save();
  const std::string table = read_whole(tsv());
  const auto f = [&](std::int64_t n, int field, const char* value) { return with_field(table, n, field, value); };
  const std::string failed = text("failed to parse .tsv/.msv file ", tsv());
  const std::vector<std::pair<std::string, std::string>> cases = {
      {f(2, 2, "abc"), failed},
      {f(2, 2, "nan"), failed},
      {f(2, 2, "2e9"), failed},
      {f(2, 1, "X"), failed},
      {f(2, 1, "S"), failed},
      {f(2, 1, "PP"), failed},
      {f(2, 3, "-2"), "is no row"},  // a negative number stands for itself, the relation is the model's
      {f(2, 3, "0"), failed},
      {f(2, 0, "V"), "invalid .tsv/.msv file line: expecting parameter 2 labelled " + m.model.parameters[1].label + ", found 2, "},
      {changed(table, "   2, ", "   7, "), "expecting parameter 2 labelled " + m.model.parameters[1].label},
      {changed(table, m.model.parameters[0].label, "other"), "expecting parameter 1 labelled " + m.model.parameters[0].label},
      {changed(table, "Response y", "Response z"),
       "ignoring initial parameter values from ESV/MSV/TSV file, it pertains to z rather than y\n9999/- Response z cf y"},
      {changed(table, "Response y\n", ""), failed},
      {f(1, 3, "2"), "fault in Gamma constraints for parameter 2, relationships must be defined relative to parameter 1"},
      {with_field(f(2, 3, "1"), 3, 3, "2"), "fault in Gamma constraints for parameter 3, relationships must be defined relative to parameter 1"},
      {f(3, 3, "999"), failed},
      {table + "  99, \"more\", G, P, 1.0, 99, 1\n", failed},
      {"", failed},
  };
  for (const auto& [contents, told] : cases) {
    VARIANCE_MODEL model = fresh();
    const std::string messages = read_table(contents, model);
    if (told == "is no row") {
      EXPECT_TRUE(same_values(model, m.model));
      continue;
    }
    EXPECT_NE(messages.find(told), std::string::npos) << told << "\n" << messages;
    EXPECT_TRUE(same_values(model, fresh())) << told;
    EXPECT_EQ(messages.find('!'), std::string::npos) << messages;
  }
  VARIANCE_MODEL model = fresh();
  EXPECT_FALSE(TSVIO_READ(eh, folder.path("no.tsv"), files, model));
  EXPECT_TRUE(has_message(eh, "failed to parse .tsv/.msv file"));
}

TEST_F(Tables, ConstrainedModelsTakeValuesAlone)
{
  m.model.vcm = {{.parameter = 0, .coefficients = {1.0, 0.0}}, {.parameter = 1, .coefficients = {0.5, 0.0}}};
  link_parameter(m.model, 1, 0, 0.5);
  set_followers(m.model);
  save();
  const std::string table = read_whole(tsv());
  EXPECT_NE(table.find(",   -1,   0.5000,   0.0000\n"), std::string::npos) << table;
  VARIANCE_MODEL model = fresh();
  EXPECT_NE(read_table(table, model).find("restart values taken"), std::string::npos);
  EXPECT_TRUE(same_values(model, m.model));
  for (const std::string& edited : {with_field(table, 3, 1, "F"), with_field(table, 2, 2, "9.0"), with_field(table, 4, 3, "3")}) {
    model = fresh();
    const std::string told = read_table(edited, model);
    EXPECT_NE(told.find("Illegal modifed .tsv/.rsv file; VCM constraints present."), std::string::npos) << told;
    EXPECT_TRUE(same_values(model, fresh()));
  }
}

TEST_F(Tables, SumsOfParametersAreNotEdited)
{
  m.model.vcm = {{.parameter = 0, .coefficients = {1.0, 0.0}}, {.parameter = 1, .coefficients = {0.0, 1.0}},
                 {.parameter = 3, .coefficients = {0.5, 2.0}}};
  link_to_sum(m.model, 3, std::vector<PARAMETER_SHARE>{{0, 0.5}, {1, 2.0}});
  set_followers(m.model);
  save();
  const std::string table = read_whole(tsv());
  VARIANCE_MODEL model = fresh();
  EXPECT_NE(read_table(table, model).find("restart values taken"), std::string::npos);
  EXPECT_TRUE(same_values(model, m.model));
  model = fresh();
  EXPECT_NE(read_table(with_field(table, 4, 2, "9.0"), model).find("Illegal modifed .tsv/.rsv file; VCM constraints present."), std::string::npos);
  EXPECT_TRUE(same_values(model, fresh()));
}

TEST_F(Tables, SubsetsAreLegalInTheirForm)
{
  const std::string name = folder.path("run.esv");
  TSVIO_WRITE(eh, TableFile::esv, m.model, parameter_values(m.model), name, "y");
  const std::string whole = read_whole(name);
  EXPECT_TRUE(whole.starts_with("# This .esv file"));
  std::string part;
  for (const std::string& line : split(whole, '\n')) {
    if (line.starts_with("#") || line.starts_with("Response") || line.starts_with("   3,")) part += line + "\n";
  }
  VARIANCE_MODEL model = fresh();
  read_table(part, model, "run.esv");
  EXPECT_TRUE(near(model.parameters[2].value, m.model.parameters[2].value, 1e-8));
  EXPECT_EQ(model.parameters[1].value, 0.25);
  model = fresh();
  EXPECT_NE(read_table(part, model).find("expecting parameter 1"), std::string::npos);
}

TEST_F(Tables, RestartFindsItsFile)
{
  FIT_OPTIONS options = FIT_OPTIONS_DEFAULTS();
  save();
  const auto run = [&](const std::function<void(FIT_OPTIONS&)>& ask, VARIANCE_MODEL& model) {
    FIT_OPTIONS asked = options;
    ask(asked);
    ERROR_HANDLER own;
    HANDLE_RSV_FILE(own, asked, m.terms, files, model);
    return messages_text(own);
  };
  VARIANCE_MODEL model = fresh();
  EXPECT_EQ(run([](FIT_OPTIONS&) {}, model), "");
  for (const char* name : {"*DEFAULT*", "run", "run.rsv"}) {
    model = fresh();
    run([&](FIT_OPTIONS& o) { o.continue_from = {.asked = true, .file = name}; }, model);
    EXPECT_TRUE(same_values(model, m.model)) << name;
    model = fresh();
    run([&](FIT_OPTIONS& o) { o.final_file = {.asked = true, .file = name}; }, model);
    EXPECT_TRUE(same_values(model, m.model)) << name;
  }
  model = fresh();
  run([&](FIT_OPTIONS& o) { o.continue_from = {.asked = true, .file = tsv()}; }, model);
  EXPECT_TRUE(same_values(model, m.model));
  EXPECT_NE(run([](FIT_OPTIONS& o) { o.continue_from = {.asked = true, .file = "no.rsv"}; }, model).find("!4/2 failed to find no.rsv"),
            std::string::npos);
  write_whole(tsv(), "nonsense\n");
  EXPECT_NE(run([](FIT_OPTIONS& o) { o.tsv.asked = true; }, model).find(text("Failed parsing .tsv ", tsv())), std::string::npos);

  // An .msv file that is not there is made by the run, and then left alone.
  EXPECT_NE(run([](FIT_OPTIONS& o) { o.msv.asked = true; }, model).find("3/- failed to find "), std::string::npos);
  save();
  EXPECT_TRUE(read_whole(folder.path("run.msv")).starts_with("# This .msv file"));
  files.msv.clear();
  write_whole(folder.path("run.msv"), with_field(read_whole(folder.path("run.msv")), 1, 2, "0.9"));
  EXPECT_NE(run([](FIT_OPTIONS& o) { o.msv.asked = true; }, model).find("restart values taken from"), std::string::npos);
  EXPECT_TRUE(near(model.parameters[0].value, 0.9, 1e-8));
  EXPECT_EQ(files.msv, "");

  files.in_use = false;
  for (const auto& [name, routine] : {std::pair{"x.rsv", "AIDCON_RETRIEVE"}, {"x.tsv", "TSVIO_READ"}}) {
    EXPECT_NE(run([&](FIT_OPTIONS& o) { o.continue_from = {.asked = true, .file = name}; }, model)
                  .find(text("attempting to call ", routine, " when there are no files to read from")),
              std::string::npos);
  }
}

TEST_F(Tables, HeldParametersAreFixed)
{
  FIT_OPTIONS options = FIT_OPTIONS_DEFAULTS();
  options.hold = {1, 3};
  HOLD_PARAMETERS(eh, options, m.model);
  EXPECT_TRUE(clean(eh));
  EXPECT_EQ(m.model.parameters[0].constraint, Constraint::F);
  EXPECT_EQ(m.model.parameters[1].constraint, Constraint::P);
  EXPECT_EQ(m.model.parameters[2].constraint, Constraint::F);
  for (const std::int64_t n : {std::int64_t{0}, m.model.count() + 1, m.model.residual_parameter + 1}) {
    ERROR_HANDLER own;
    options.hold = {n};
    HOLD_PARAMETERS(own, options, m.model);
    EXPECT_TRUE(own.terminate()) << n;
  }
}

}  // namespace
}  // namespace tolvan
