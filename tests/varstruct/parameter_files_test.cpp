// Parameter files: what is written, read back, edited and refused; damaged files at every byte; folders and devices that
// take no file.
#include "varstruct/followers.h"
#include "varstruct/parameter_files.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <sstream>

#include "base/text.h"
#include "varstruct/initial_values.h"
#include "varstruct/small_model.h"

namespace tolvan {
namespace {

/// An unstructured term, a factor model of some factors, a plain variance and the residual.
struct Files : testing::Test {
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
  std::string read(const std::string& name) const
  {
    std::ifstream in(name, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
  }
  void write(const std::string& name, const std::string& contents) const
  {
    std::ofstream(name, std::ios::binary) << contents;
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
    write(rsv(), contents);
    ERROR_HANDLER own;
    AIDCON_RETRIEVE(own, m.terms, rsv(), files, model);
    return messages_text(own);
  }
  std::string read_table(const std::string& contents, VARIANCE_MODEL& model, const char* name = "run.tsv")
  {
    write(folder.path(name), contents);
    ERROR_HANDLER own;
    TSVIO_READ(own, folder.path(name), files, model);
    return messages_text(own);
  }
};

std::string changed(std::string s, std::string_view from, std::string_view to)
{
  const std::size_t at = s.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos) s.replace(at, from.size(), to);
  return s;
}

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

bool same_values(const VARIANCE_MODEL& a, const VARIANCE_MODEL& b)
{
  return near(parameter_values(a), parameter_values(b), 1e-8, 1e-12);
}

TEST_F(Files, RoundTrip)
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

TEST_F(Files, ValuesKeepTheirDigits)
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

TEST_F(Files, LookAsTheyShould)
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
  EXPECT_EQ(read(rsv()),
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
  EXPECT_EQ(read(tsv()),
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

TEST_F(Files, TableIsEdited)
{
  save();
  const std::string table = read(tsv());
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

TEST_F(Files, TableIsRefused)
{
  save();
  const std::string table = read(tsv());
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

TEST_F(Files, ConstrainedModelsTakeValuesAlone)
{
  m.model.vcm = {{.parameter = 0, .coefficients = {1.0, 0.0}}, {.parameter = 1, .coefficients = {0.5, 0.0}}};
  link_parameter(m.model, 1, 0, 0.5);
  set_followers(m.model);
  save();
  const std::string table = read(tsv());
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

TEST_F(Files, SubsetsAreLegalInTheirForm)
{
  const std::string name = folder.path("run.esv");
  TSVIO_WRITE(eh, TableFile::esv, m.model, parameter_values(m.model), name, "y");
  const std::string whole = read(name);
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

TEST_F(Files, SavedValuesAreTakenOrRefused)
{
  save();
  const std::string saved = read(rsv());
  VARIANCE_MODEL model = fresh();
  EXPECT_NE(retrieve(changed(saved, "Response y", "Response z"), model)
                .find("ignoring initial parameter values from .rsv file, it pertains to z rather than y"),
            std::string::npos);
  EXPECT_NE(retrieve(changed(saved, "RSTRUCTURE        ", "STRUCTURES"), model)
                .find("The .rsv file is from an older version of TOLVAN and is not compatible with this version. It is ignored."),
            std::string::npos);
  for (const std::string& damaged :
       {changed(saved, "      0.51562500", "      0.5156x500"), changed(saved, "   1, G,", "   1, g,"), std::string("a\nb\n"), std::string()})
    EXPECT_NE(retrieve(damaged, model).find(text("failed to read .rsv file ", rsv())), std::string::npos);
  EXPECT_TRUE(same_values(model, fresh()));

  // What stands before an implausible value is kept.
  const std::string told = retrieve(changed(saved, ",       0.53125000", ",    2.0e9"), model);
  EXPECT_NE(told.find("3/- Implausible variance parameter value (  0.2000E+10) in .rsv file\n9999/- input from .rsv is aborted. If the "
                      "value is reasonable, given the scale of the data, rescale the data values and\n"),
            std::string::npos)
      << told;
  EXPECT_TRUE(near(model.parameters[0].value, 0.515625, 1e-8));
  EXPECT_EQ(model.parameters[1].value, 0.25);

  model = fresh();
  model.parameters[0].constraint = Constraint::F;
  const std::string fixed = retrieve(saved, model);
  EXPECT_NE(fixed.find("Parameter constraint difference in .rsv file: P ==> F\n9999/- Use .msv/.tsv to reset parameter constraints.\n"),
            std::string::npos)
      << fixed;
  EXPECT_NE(fixed.find("Fixed variance parameters NOT updated from .rsv file"), std::string::npos);
  EXPECT_EQ(model.parameters[0].value, 0.25);

  model = fresh();
  link_parameter(model, 2, 0, 0.5);
  EXPECT_NE(retrieve(saved, model).find(" Possible VCC/VCM constraint problem parsing .rsv file: parameter 3"), std::string::npos);
  EXPECT_TRUE(near(model.parameters[2].value, 0.5 * 0.515625, 1e-8));

  ERROR_HANDLER own;
  AIDCON_RETRIEVE(own, m.terms, rsv(), *std::make_unique<PARAMETER_FILES>(), model);
  EXPECT_TRUE(has_message(own, "attempting to read rsv and / or veo file, but we are not using files"));
}

TEST_F(Files, MoreLevelsAndOtherFactorCounts)
{
  save();
  SMALL_MODEL more;
  set_up(more, 4, "fa", 1);
  for (VARIANCE_PARAMETER& p : more.model.parameters) p.value = p.start = p.value == 1.0 ? 1.0 : 0.25;
  ERROR_HANDLER own;
  AIDCON_RETRIEVE(own, more.terms, rsv(), files, more.model);
  // The three levels of the file fill the first three of four.
  for (std::size_t k = 0; k < 6; ++k) EXPECT_TRUE(near(more.model.parameters[k].value, m.model.parameters[k].value, 1e-8));
  for (std::size_t k = 6; k < 10; ++k) EXPECT_EQ(more.model.parameters[k].value, 0.25);
  EXPECT_TRUE(has_message(own, "taken from .rsv file and scaled by"));
  // One factor in the place of two: the variance over all levels stays.
  const auto variance = [](const SMALL_MODEL& s, std::size_t first, std::size_t factors) {
    double sum = 0.0;
    for (std::size_t k = 0; k < 4; ++k) sum += s.model.parameters[first + k].value;
    for (std::size_t k = 4; k < 4 * (factors + 1); ++k) sum += s.model.parameters[first + k].value * s.model.parameters[first + k].value;
    return sum;
  };
  EXPECT_TRUE(near(variance(more, 10, 1), variance(m, 6, 2), 1e-7)) << messages_text(own);

  // Fewer levels than the file has are other levels.
  SMALL_MODEL fewer;
  set_up(fewer, 2, "fa", 2);
  const double had = fewer.model.parameters[1].value;
  AIDCON_RETRIEVE(own, fewer.terms, rsv(), files, fewer.model);
  EXPECT_EQ(fewer.model.parameters[1].value, had);
}

/// Every prefix and every single damaged byte: no crash, nothing but warnings, values whole or untouched.
TEST_F(Files, DamageAtEveryByte)
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
    const std::string whole = read(table ? tsv() : rsv());
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

TEST_F(Files, EquationOrder)
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

TEST_F(Files, RestartFindsItsFile)
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
  write(tsv(), "nonsense\n");
  EXPECT_NE(run([](FIT_OPTIONS& o) { o.tsv.asked = true; }, model).find(text("Failed parsing .tsv ", tsv())), std::string::npos);

  // An .msv file that is not there is made by the run, and then left alone.
  EXPECT_NE(run([](FIT_OPTIONS& o) { o.msv.asked = true; }, model).find("3/- failed to find "), std::string::npos);
  save();
  EXPECT_TRUE(read(folder.path("run.msv")).starts_with("# This .msv file"));
  files.msv.clear();
  write(folder.path("run.msv"), with_field(read(folder.path("run.msv")), 1, 2, "0.9"));
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

TEST_F(Files, HeldParametersAreFixed)
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

TEST_F(Files, FaultsAreToldOnceAndLeaveTheEarlierFile)
{
  save();
  const std::string before = read(rsv());
  // A limit on the size of files stands for a full device.
  struct rlimit had {};
  getrlimit(RLIMIT_FSIZE, &had);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  struct rlimit small = had;
  small.rlim_cur = 64;
  setrlimit(RLIMIT_FSIZE, &small);
  m.model.parameters[0].value = 0.125;
  save();
  save();
  setrlimit(RLIMIT_FSIZE, &had);
  std::signal(SIGXFSZ, handler);
  EXPECT_EQ(read(rsv()), before);
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
