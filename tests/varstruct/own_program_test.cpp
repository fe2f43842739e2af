// Structures that a user's own program forms: the files, every way in which the exchange fails, and the
// matrices.  The programs are shell scripts that awk the answer.
#include "varstruct/own_program.h"

#include "base/files.h"
#include "base/text.h"
#include "support/checks.h"
#include "support/own_script.h"
#include "varstruct/dense_reference.h"
#include "varstruct/one_row.h"

namespace tolvan {
namespace {

Dense given(const Vector& theta)
{
  Dense g(3, 3);
  for (std::int64_t i = 0; i < 3; ++i)
    for (std::int64_t j = 0; j < 3; ++j)
      g(i, j) = theta[1] + (i == j ? theta[0] + 2.0 * theta[1] * static_cast<double>(i + 1) : 0.0);
  return g;
}
Dense derivative(std::size_t k)
{
  return k == 0 ? identity(3) : given({0.0, 1.0});
}

/// A row of three levels and two parameters with its program in a folder of its own.
struct OWN_ROW {
  TempFolder folder;
  ONE_ROW run;

  OWN_ROW(std::int64_t model, bool inverse, const std::string& form, const Vector& theta)
      : run(model, 3, 2, theta)
  {
    const std::string script = folder.file("mine.sh", text(own_script, folder.path("mine.gdg"), "\n"));
    run.model.own_programs = {{.program = "form() { sh " + script + " \"$1\" " + form + "; }; form",
                               .file = folder.path("mine.data") + " and what follows",
                               .control = 7,
                               .inverse = inverse}};
    run.row.own = 0;
    run.component = make_component(run.row, run.model);
  }
};

TEST(OwnProgram, FilesAreNamedAfterTheStem)
{
  struct CASE {
    const char *file, *own, *gdg;
  };
  for (const CASE& c :
       {CASE{"mine", "mineA3.own", "mine.gdg"}, CASE{"mine.data", "mineA3.own", "mine.gdg"},
        CASE{"mine.dat", "mine.datA3.own", "mine.dat.gdg"}, CASE{".abc", ".abcA3.own", ".abc.gdg"},
        CASE{"a.bcde", "aA3.own", "a.gdg"}, CASE{"my file.data", "myA3.own", "my.gdg"}}) {
    EXPECT_EQ(own_files(c.file, 3).own, c.own);
    EXPECT_EQ(own_files(c.file, 3).gdg, c.gdg);
  }
}

TEST(OwnProgram, GivesTheMatrixItsInverseOrADiagonal)
{
  struct CASE {
    const char* name;
    std::int64_t model;
    bool inverse;
    const char* form;
  };
  const Vector theta{0.75, 0.5};
  for (const CASE& c : {CASE{"plain", 7, false, "dense"}, CASE{"sparse", 7, false, "sparse"},
                        CASE{"inverse", 7, true, "dense"}, CASE{"diagonal", 8, false, "dense"}}) {
    SCOPED_TRACE(c.name);
    OWN_ROW own(c.model, c.inverse, c.form, theta);
    ASSERT_EQ(own.run.form(), Formed::done) << messages_text(own.run.eh);
    const bool sparse = c.form == std::string_view("sparse");
    EXPECT_EQ(own.run.eh.count(), sparse ? 1 : 0);
    if (sparse) {
      EXPECT_TRUE(has_message(own.run.eh, " reading OWN matrix in SPARSE form"));
    }
    const auto only = [&](Dense a) {  // what the row takes
      for (std::int64_t i = 0; i < 3; ++i)
        for (std::int64_t j = 0; j < 3; ++j)
          if (c.model == 8 && i != j) a(i, j) = 0.0;
      return a;
    };
    const INVERTED other = inverted(only(given(theta)));
    const Dense r = c.inverse ? other.inverse : only(given(theta));
    const Dense ri = c.inverse ? only(given(theta)) : other.inverse;
    const SYMMETRIC& inverse = own.run.component->inverse();
    EXPECT_TRUE(near(expanded(inverse, inverse.values).a, ri.a, 1e-13, 1e-14));
    EXPECT_NEAR(own.run.component->log_determinant(), (c.inverse ? -1.0 : 1.0) * other.log_determinant,
                1e-13);
    Dense covariance(3, 3);
    own.run.component->covariance(covariance.a.data());
    EXPECT_TRUE(near(covariance.a, r.a, 1e-13, 1e-14));

    Dice dice(31);
    const Vector s = laid_out(inverse, dice.symmetric(3));
    const Dense full = expanded(inverse, s.data());
    Vector out(2, 0.5);
    own.run.component->contract(s.data(), out.data());
    for (std::size_t k = 0; k < 2; ++k) {
      const Dense dot = c.inverse ? plus(Dense(3, 3), r * derivative(k) * r, -1.0) : only(derivative(k));
      EXPECT_NEAR(own.run.component->score_part()[k], trace_of_product(ri, dot), 1e-13);
      EXPECT_NEAR(out[k], 0.5 + trace_of_product(ri * dot * ri, full), 1e-13);
      const Vector x = dice.vector(2 * 3 * 65);
      Vector y(x.size());
      own.run.component->working(static_cast<std::int64_t>(k), x.data(), y.data(), 2, 65);
      const Dense by = dot * ri;
      for (std::int64_t o = 0; o < 2; ++o) {
        for (std::int64_t i = 0; i < 3; ++i) {
          for (std::int64_t t = 0; t < 65; ++t) {
            double sum = 0.0;
            for (std::int64_t j = 0; j < 3; ++j)
              sum += by(i, j) * x[static_cast<std::size_t>((o * 3 + j) * 65 + t)];
            EXPECT_NEAR(y[static_cast<std::size_t>((o * 3 + i) * 65 + t)], sum, 1e-13);
          }
        }
      }
    }
    // New values reach the program.
    own.run.model.parameters[1].value = 2.0;
    ASSERT_EQ(own.run.form(2), Formed::done);
    const INVERTED anew = inverted(only(given({2.0, 0.5})));
    EXPECT_NEAR(own.run.component->log_determinant(), (c.inverse ? -1.0 : 1.0) * anew.log_determinant, 1e-13);
  }
}

TEST(OwnProgram, WritesTheParametersWithInstructions)
{
  OWN_ROW own(7, false, "dense", {0.75, -0.0125});
  own.run.form();  // not positive definite, which the driver tells
  EXPECT_TRUE(clean(own.run.eh));
  std::string contents, error;
  ASSERT_TRUE(read_file(own.folder.path("mineA7.own"), contents, error)) << error;
  const std::string& program = own.run.model.own_programs[0].program;
  EXPECT_EQ(contents, text("    3    2    7\n"
                           " 0.7500000D+00-0.1250000D-01\n"
                           " This file was written by Tolvan for reading by your program ",
                           program,
                           "\n"
                           " Tolvan writes this file, runs ",
                           program, " and then reads ", own.folder.path("mine.gdg"),
                           "\n"
                           " which it presumes you have written in the following format:\n"
                           " The first lines should agree with the top of this file\n"
                           " specifying the order of the matrices         (3)\n"
                           " the number of variance parameters (2)\n"
                           " and a control parameter you can specify (7)\n"
                           " These are written in (3I5 ) format. They are followed by\n"
                           " the list of variance parameters written in (6D14.7) format.\n"
                           " Follow this with 3 matrices written in (6D14.7) format.\n"
                           " These are to be each of 6 elements being lower triangle\n"
                           " row-wise of the G matrix and its derivatives with respect to\n"
                           " the parameters in turn.\n"));
}

TEST(OwnProgram, TellsWhatIsWrongWithAnAnswer)
{
  const std::string head = "    3    2    7\n 0.7500000D+00 0.5000000D+00\n";
  const std::string g =
      " 0.2250000D+01 0.5000000D+00 0.3250000D+01 0.5000000D+00 0.5000000D+00 0.4250000D+01\n";
  struct CASE {
    const char* name;
    std::string written;
    std::vector<const char*> words;
  };
  const std::vector<CASE> cases = {
      {"another order",
       "    4    2    7\n",
       {"failed reading the first line of ", "which should look like [    3    2    7]"}},
      {"nothing", "", {"failed reading the first line of "}},
      {"no parameters",
       "    3    2    7\n",
       {"failed reading the second section of ", "which should look like (6D14.7)"}},
      {"words for parameters", "    3    2    7\n one two\n", {"failed reading the second section of "}},
      {"no matrix",
       head,
       {"failed reading the third section of ",
        "which should contain the G matrix, 6 values in (6D14.7) format",
        "failed to read the first matrix from your GDG file, Check FORMAT is 6D14.7",
        "check the format of your GDG file"}},
      {"too many values", head + "1.0 2.0 3.0 4.0 5.0 6.0 7.0\n", {"failed reading the third section of "}},
      {"one derivative",
       head + g + g,
       {"failed reading derivative matrix from ", "which should contain 6 values in (6D14.7) format",
        "failed to read the derivative matrix 2 from your GDG file"}},
      {"a cell outside", head + "4 1 1.0 0\n", {"invalid matrix cell numbers"}},
      {"a fourth field",
       head + "1 1 1.0 2\n",
       {"invalid 4th field retrieving OWN matrices", "permitted values: 0 1 -1"}},
      {"cells that do not end", head + "1 1 1.0 0\n2 2 1.0 0\n", {"failed reading the third section of "}},
  };
  for (const CASE& c : cases) {
    SCOPED_TRACE(c.name);
    TempFolder folder;
    const std::string source = folder.file("answer", c.written);
    ERROR_HANDLER eh;
    OWN_MATRICES out;
    const OWN_PROGRAM program{
        .program = text("copy() { cp ", source, " ", folder.path("own.gdg"), "; }; copy"),
        .file = folder.path("own"),
        .control = 7};
    EXPECT_FALSE(AIDOWN(eh, program, 3, Vector{0.75, 0.5}, out));
    EXPECT_TRUE(eh.terminate());
    for (const char* words : c.words) EXPECT_TRUE(has_message(eh, words));
    EXPECT_TRUE(eh.stack().entries.empty());
  }

  // A program that writes nothing must not be answered by an old file.
  TempFolder folder;
  folder.file("own.gdg", head + g + g + g);
  ERROR_HANDLER eh;
  OWN_MATRICES out;
  EXPECT_FALSE(
      AIDOWN(eh, {.program = "true", .file = folder.path("own"), .control = 7}, 3, Vector{0.75, 0.5}, out));
  EXPECT_TRUE(has_message(eh, "unable to read / write data file " + folder.path("own.gdg")));
  EXPECT_TRUE(has_message(eh, " need to run true"));

  // The rest of a sparse file is zero behind -1; free columns are read where blanks stand apart.
  folder.file("hand.gdg",
              "3 2 7\n0.75 0.5\n1 1 2.25 0\n2 1 0.5 0\n2 2 3.25 0\n3 3 4.25 1\n1.0 0.0 1.0 0.0 0.0\n1.0\n1 1 "
              "3.0 -1\n");
  ERROR_HANDLER quiet;
  ASSERT_TRUE(
      AIDOWN(quiet, {.program = " ", .file = folder.path("hand"), .control = 7}, 3, Vector{0.75, 0.5}, out))
      << messages_text(quiet);
  EXPECT_EQ(out.matrices,
            (std::vector<Vector>{{2.25, 0.5, 3.25, 0, 0, 4.25}, {1, 0, 1, 0, 0, 1}, {3, 0, 0, 0, 0, 0}}));
}

}  // namespace
}  // namespace tolvan
