// The catalogue of component models: what each is called, how it is coded and how many parameters it owns.
// Plain data and helpers; no routines.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "varstruct/parameter_table.h"

namespace tolvan {

/// How many parameters of its own a model takes; n levels, order or factor count k as asked (0 counts as 1).
enum class ParameterRule {
  none,
  one,
  two,
  order_to_2,           // min(k, 2)
  order_to_3,           // min(k, 3)
  order_to_5,           // min(k, 5)
  order,                // k
  bands,                // n - 1
  pairs,                // n(n-1)/2
  levels,               // n
  triangle,             // n(n+1)/2
  loadings_and_levels,  // n(k+1), k at most n - 1
  extended,             // (n-k)(k+1), n counting the k factors, k from 1 to n
};

/// One component model.
struct COMPONENT_MODEL {
  std::int64_t selector;  // its position in the list of names
  std::string_view name;  // four characters, as printed
  std::int64_t code;      // internal code; -2 pedigree inverse, -1 other matrices from outside
  std::int64_t sub_code;  // of the metric family, else 0
  ParameterRule rule;
  std::string_view
      types;  // letters of its own parameters: one for all, or "RG": the last n or the last one are G
  std::string_view functions;  // request functions without their variance forms, blanks between
  bool forms;                  // these have a v and an h form
  bool built;
};

namespace model_rows {
inline constexpr bool v_and_h = true, alone = false;
inline constexpr bool built = true, later = false;
}  // namespace model_rows

// clang-format off
inline constexpr std::array component_models = {
    COMPONENT_MODEL{ 0, "IDEN",  0, 0, ParameterRule::none,                "",   "id",          model_rows::v_and_h, model_rows::built},
    COMPONENT_MODEL{ 1, "AR  ",  1, 0, ParameterRule::order_to_3,          "R",  "ar1 ar2 ar3", model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{ 2, "MA  ",  2, 0, ParameterRule::order_to_2,          "R",  "ma1 ma2",     model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{ 3, "ARMA",  3, 0, ParameterRule::two,                 "R",  "arma",        model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{ 4, "CORU",  5, 0, ParameterRule::one,                 "R",  "cor",         model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{ 5, "CORB",  5, 0, ParameterRule::bands,               "R",  "corb",        model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{ 6, "CORG",  5, 0, ParameterRule::pairs,               "R",  "corg",        model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{ 7, "OWN ",  7, 0, ParameterRule::order,               "G",  "",            model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{ 8, "SAR ", 14, 0, ParameterRule::order_to_2,          "R",  "sar sar2",    model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{ 9, "EUC ",  6, 3, ParameterRule::one,                 "R",  "",            model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{10, "EXP ",  6, 1, ParameterRule::one,                 "R",  "exp",         model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{11, "GAU ",  6, 2, ParameterRule::one,                 "R",  "gau",         model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{12, "IEXP",  6, 1, ParameterRule::one,                 "R",  "iexp",        model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{13, "IGAU",  6, 2, ParameterRule::one,                 "R",  "igau",        model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{14, "IEUC",  6, 3, ParameterRule::one,                 "R",  "ieuc",        model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{15, "SPH ",  6, 4, ParameterRule::order_to_2,          "G",  "sph",         model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{16, "AEXP",  6, 1, ParameterRule::two,                 "RG", "aexp",        model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{17, "AGAU",  6, 2, ParameterRule::two,                 "RG", "agau",        model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{18, "LIN ",  6, 6, ParameterRule::order_to_2,          "G",  "",            model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{19, "LVR ",  6, 7, ParameterRule::order_to_2,          "G",  "lvr ilv",     model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{20, "AINV", -2, 0, ParameterRule::none,                "",   "",            model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{21, "GIV ", -1, 0, ParameterRule::none,                "",   "",            model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{22, "CIR ",  6, 5, ParameterRule::order_to_2,          "G",  "cir",         model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{23, "MAT ",  6, 9, ParameterRule::order_to_5,          "u",  "mtrn",        model_rows::v_and_h, model_rows::later},
    COMPONENT_MODEL{24, "DIAG",  8, 0, ParameterRule::levels,              "G",  "diag",        model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{25, "US  ",  9, 0, ParameterRule::triangle,            "G",  "us",          model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{26, "FA  ", 10, 0, ParameterRule::loadings_and_levels, "RG", "sfa",         model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{27, "CHOL", 11, 0, ParameterRule::triangle,            "G",  "chol cholc",  model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{28, "ANTE", 12, 0, ParameterRule::triangle,            "G",  "ante",        model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{29, "FACV", 13, 0, ParameterRule::loadings_and_levels, "G",  "facv",        model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{30, "RRNK", -1, 0, ParameterRule::none,                "",   "rr",          model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{31, "XFA ", 15, 0, ParameterRule::extended,            "G",  "fa",          model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{32, "NRM ", -1, 0, ParameterRule::none,                "",   "ide ric nrm", model_rows::alone,   model_rows::later},
    COMPONENT_MODEL{33, "GRM ", -1, 0, ParameterRule::none,                "",   "vm grm",      model_rows::alone,   model_rows::later},
};
// clang-format on

/// Names in print: by code from 0 to 14 (15 in the second), of the correlation form and of the form with a
/// variance, four characters each; by sub-code of the metric family from 1, three each; of matrices from
/// outside.
inline constexpr std::string_view correlation_form_names =
    "IDENAR  MA  ARMA    CORRDIGGOWN DIAGUS  FA  CHOLANTEFACVSAR ";
inline constexpr std::string_view variance_form_names =
    "idenar  ma  arma    corrPOW OWN diagus  fa  GV  GIV FACVRRNKXFA     ";
inline constexpr std::string_view metric_names = "EXPGAUEUCSPHCIRLINLVRXXXMAT";
inline constexpr std::string_view outside_names = "WT  AINVGIV1GIV2GIV3GIV4GIV5GIV6GIV7GIV8";

/// The letters of a label, by type code; a variance and a gamma both print as V.
inline constexpr std::string_view parameter_label_letters = ";VVRCPLURpnda";
/// The words of the types in tables, by type code - 1.
inline constexpr std::array<std::string_view, 12> parameter_type_words = {
    "Variance", "Gamma", "Correln", "CoVarnce", "Pcorreln", "Loading",
    "Unknown",  "Range", "Phi",     "Nu",       "Delta",    "Alpha"};

namespace model_rows {

/// Whether the names, one after the other, spell a text, and each row stands at its selector.
constexpr bool spell(std::string_view names)
{
  std::int64_t k = 0;
  for (const COMPONENT_MODEL& m : component_models) {
    if (m.selector != k || m.name.size() != 4) return false;
    if (names.substr(static_cast<std::size_t>(4 * k), 4) != m.name) return false;
    ++k;
  }
  return static_cast<std::int64_t>(names.size()) == 4 * k;
}

/// Whether each sub-code of the metric family has its three letters in the model's name.
constexpr bool metric_names_fit()
{
  for (const COMPONENT_MODEL& m : component_models) {
    if (m.sub_code == 0) continue;
    const std::string_view letters = metric_names.substr(static_cast<std::size_t>(3 * (m.sub_code - 1)), 3);
    if (m.name.find(letters) == std::string_view::npos) return false;
  }
  return true;
}

}  // namespace model_rows

static_assert(
    model_rows::spell("IDENAR  MA  ARMACORUCORBCORGOWN SAR EUC EXP GAU IEXPIGAUIEUCSPH AEXPAGAULIN LVR "
                      "AINVGIV CIR MAT DIAGUS  FA  CHOLANTEFACVRRNKXFA NRM GRM "));
static_assert(model_rows::metric_names_fit());
static_assert(parameter_type_letters.size() == parameter_type_words.size());
static_assert(parameter_label_letters.size() == parameter_type_letters.size() + 1);

/// What a request function asks for.
struct MODEL_REQUEST {
  const COMPONENT_MODEL* model = nullptr;  // null: the function names no component model
  std::int64_t qualifier = 0;              // 0 no variance of its own, 1 one variance, 2 one a level
  std::int64_t order = 1;                  // the number at the end of the name, else 1
};

/// The model behind a request function: "ar2v" is AR of order 2 with a variance.
MODEL_REQUEST model_request(std::string_view function);

/// The number of parameters that a model owns, its variances by qualifier apart.
std::int64_t own_parameters(const COMPONENT_MODEL& model, std::int64_t levels, std::int64_t order);

}  // namespace tolvan
