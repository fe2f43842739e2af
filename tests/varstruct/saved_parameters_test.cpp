// Parameters between runs: what is taken from an .rsv file and what is refused.
#include <memory>

#include "varstruct/followers.h"
#include "varstruct/initial_values.h"
#include "varstruct/model_with_files.h"

namespace tolvan {
namespace {

using Saved = ParameterFiles;

TEST_F(Saved, SavedValuesAreTakenOrRefused)
{
  save();
  const std::string saved = read_whole(rsv());
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

TEST_F(Saved, MoreLevelsAndOtherFactorCounts)
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

}  // namespace
}  // namespace tolvan
