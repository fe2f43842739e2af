// Every correlation model in every form against its dense definition.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "support/checks.h"
#include "varstruct/dense_correlations.h"
#include "varstruct/make_component.h"
#include "varstruct/model_catalogue.h"

namespace tolvan {
namespace {

using dense::Inverted;
using dense::Matrix;
using dense::Model;
using dense::Random;
using dense::Values;

constexpr double eps = std::numeric_limits<double>::epsilon();

/// A row of one model in one form, alone in its table.
struct Row {
  const Model* model;
  VARIANCE_MODEL table;
  STRUCTURE_ROW row;
  VarianceForm form;
  std::int64_t own = 0;

  Row(const Model& m, std::int64_t n, VarianceForm variance_form, Random& random,
      const std::vector<std::int64_t>& segments = {})
      : model(&m), form(variance_form)
  {
    row.size = n;
    row.model = m.code;
    row.selector = m.selector;
    row.sub_code = m.sub_code;
    row.order = m.order;
    own = own_parameters(component_models[static_cast<std::size_t>(m.selector)], n, m.order);
    const std::int64_t variances = form == VarianceForm::plain          ? 0
                                   : form == VarianceForm::one_variance ? 1
                                                                        : n;
    row.parameters = own + variances;
    if (form == VarianceForm::one_variance) row.scale = own;
    table.coordinates.push_back(dense::scatter(n, m.dimensions, random));
    if (m.dimensions > 0) row.coordinates = 0;
    if (!segments.empty()) {
      table.segments.push_back(segments);
      row.segments = 0;
    }
    table.parameters.resize(static_cast<std::size_t>(row.parameters));
    draw(random);
  }

  void draw(Random& random)
  {
    Values theta = model->draw(row.size, random);
    while (static_cast<std::int64_t>(theta.size()) < row.parameters)
      theta.push_back(dense::uniform(random, 0.3, 3.0));
    for (std::size_t k = 0; k < theta.size(); ++k) table.parameters[k].value = theta[k];
  }

  Values theta() const
  {
    Values t;
    for (const VARIANCE_PARAMETER& p : table.parameters) t.push_back(p.value);
    return t;
  }

  /// R by definition: pieces, then variances.
  Matrix matrix(const Values& t) const
  {
    const std::int64_t n = row.size;
    Matrix r(n);
    std::vector<std::int64_t> starts{0};
    if (row.segments >= 0) starts.insert(starts.end(), table.segments[0].begin(), table.segments[0].end());
    starts.push_back(n);
    const Values model_part(t.begin(), t.begin() + own);
    const Matrix whole = model->matrix(n, model_part, table.coordinates[0]);
    for (std::size_t s = 0; s + 1 < starts.size(); ++s) {
      for (std::int64_t i = starts[s]; i < starts[s + 1]; ++i) {
        for (std::int64_t j = starts[s]; j < starts[s + 1]; ++j) {
          const auto a = static_cast<std::size_t>(own + i), b = static_cast<std::size_t>(own + j);
          const double scale = form == VarianceForm::plain          ? 1.0
                               : form == VarianceForm::one_variance ? t.back()
                                                                    : std::sqrt(t[a] * t[b]);
          r(i, j) = scale * whole(i, j);
        }
      }
    }
    return r;
  }

  /// dR / d theta_k by central differences of the fourth order.
  Matrix derivative(std::int64_t k) const
  {
    const auto at = [&](double step) {
      Values t = theta();
      t[static_cast<std::size_t>(k)] += step;
      return matrix(t);
    };
    const double h = 3e-4 * std::max(0.1, std::fabs(theta()[static_cast<std::size_t>(k)]));
    const Matrix a = at(h), b = at(-h), c = at(2 * h), d = at(-2 * h);
    Matrix out(row.size);
    for (std::size_t i = 0; i < out.a.size(); ++i)
      out.a[i] = (8.0 * (a.a[i] - b.a[i]) - (c.a[i] - d.a[i])) / (12.0 * h);
    return out;
  }

  /// Whether a difference would step over a kink: a range so near a distance, or two points so near an axis
  /// of a city-block one.
  bool at_kink() const
  {
    const bool range_model = model->code == 6 && model->sub_code >= 4 && model->sub_code <= 7;
    const Values t = theta();
    const bool city_block = model->code == 6 && model->sub_code == 9 && own == 5 && t[4] == 1.0;
    if (!range_model && !city_block) return false;
    const double range = model->sub_code == 6 ? 1.0 / t[0] : t[0];
    const COORDINATES& at = table.coordinates[0];
    for (std::size_t i = 0; i < at.x.size(); ++i) {
      for (std::size_t j = 0; j < i; ++j) {
        const double dx = at.x[i] - at.x[j], dy = at.y.empty() ? 0.0 : at.y[i] - at.y[j],
                     d = std::hypot(dx, dy);
        if (range_model && std::fabs(d - range) < 1e-2 * range) return true;
        if (!city_block) continue;
        const double u = dx * std::cos(t[3]) + dy * std::sin(t[3]),
                     v = dy * std::cos(t[3]) - dx * std::sin(t[3]);
        if (std::min(std::fabs(u), std::fabs(v)) < 3e-3 * d) return true;
      }
    }
    return false;
  }

  /// A component formed twice, first at other values: buffers are reused.
  std::unique_ptr<COMPONENT_MATRIX> formed(ERROR_HANDLER& eh, Random& random)
  {
    const Values t = theta();
    auto component = make_component(row, table);
    if (component == nullptr) return component;
    draw(random);
    answer(eh, *component);
    for (std::size_t k = 0; k < t.size(); ++k) table.parameters[k].value = t[k];
    const Formed last = answer(eh, *component);
    EXPECT_EQ(last, row.model == 6 ? Formed::done_by_metric : Formed::done) << eh.EH_LAST_MESSAGE();
    return component;
  }

  Formed answer(ERROR_HANDLER& eh, COMPONENT_MATRIX& component, double ar_limit = 0.999)
  {
    FORM_CONTEXT context{eh, table, row, 7, ar_limit, 0.0};
    const Formed formed_as = component.form(context);
    EXPECT_TRUE(eh.stack().entries.empty());
    return formed_as;
  }
};

Matrix whole(const SYMMETRIC& s, const double* values)
{
  Matrix out(s.n);
  for (std::int64_t j = 0; j < s.n; ++j) {
    for (std::int64_t i = j; i < s.n; ++i) {
      const bool there = s.shape == Shape::dense || i - j <= s.bandwidth;
      const double lower = !there ? 0.0 : values[s.shape == Shape::dense ? i + j * s.n : (i - j) * s.n + j];
      out(i, j) = lower;
      out(j, i) = s.shape == Shape::dense ? values[j + i * s.n] : lower;
    }
  }
  return out;
}

double largest(const Matrix& a)
{
  double x = 0.0;
  for (const double v : a.a) x = std::max(x, std::fabs(v));
  return x;
}

double row_sum_norm(const Matrix& a)
{
  double norm = 0.0;
  for (std::int64_t i = 0; i < a.n; ++i) {
    double sum = 0.0;
    for (std::int64_t j = 0; j < a.n; ++j) sum += std::fabs(a(i, j));
    norm = std::max(norm, sum);
  }
  return norm;
}

Values random_numbers(std::int64_t count, Random& random)
{
  Values x;
  for (std::int64_t i = 0; i < count; ++i) x.push_back(dense::uniform(random, -1.0, 1.0));
  return x;
}

/// The largest difference of y and A x over the slices of a block.
double block_difference(const Matrix& a, const Values& x, const Values& y, std::int64_t outer,
                        std::int64_t inner)
{
  double worst = 0.0;
  for (std::int64_t o = 0; o < outer; ++o) {
    for (std::int64_t i = 0; i < a.n; ++i) {
      for (std::int64_t k = 0; k < inner; ++k) {
        double sum = 0.0;
        for (std::int64_t j = 0; j < a.n; ++j)
          sum += a(i, j) * x[static_cast<std::size_t>((o * a.n + j) * inner + k)];
        worst = std::max(worst, std::fabs(sum - y[static_cast<std::size_t>((o * a.n + i) * inner + k)]));
      }
    }
  }
  return worst;
}

constexpr std::pair<std::int64_t, std::int64_t> blocks[] = {{1, 1}, {4, 1}, {3, 2}};  // outer, inner

/// Inverse, determinant and the matrix itself; with derivatives also all that is made of them.
void compare(Row& row, Random& random, bool derivatives = true)
{
  ERROR_HANDLER eh;
  const std::int64_t n = row.row.size;
  if (!(dense::inverted(row.matrix(row.theta())).condition < 1e11)) return;  // no inverse to speak of
  const auto component = row.formed(eh, random);
  ASSERT_NE(component, nullptr);
  EXPECT_EQ(eh.count(), 0) << eh.EH_PRINT_TEXT();
  const Matrix r = row.matrix(row.theta());  // forming may have moved the values into their space
  const Inverted expected = dense::inverted(r);
  const double condition = expected.condition;
  const SYMMETRIC& view = component->inverse();
  ASSERT_EQ(view.n, n);
  Matrix ri = whole(view, view.values);
  for (double& x : ri.a) x *= view.scale;
  Matrix rest = product(r, ri);
  for (std::int64_t i = 0; i < n; ++i) rest(i, i) -= 1.0;
  EXPECT_LE(row_sum_norm(rest), 30.0 * static_cast<double>(n) * eps * condition);
  if (condition < 1e4) {
    EXPECT_LE(row_sum_norm(rest), 1e-10);
  }
  EXPECT_NEAR(component->log_determinant(), expected.log_determinant,
              1e-13 * static_cast<double>(n) * std::max(10.0, condition));
  Matrix back(n);
  component->covariance(back.a.data());
  for (std::size_t i = 0; i < r.a.size(); ++i)
    EXPECT_NEAR(back.a[i], r.a[i], 1e-15 * std::max(1e3, condition) * std::max(1.0, largest(r)));
  if (!derivatives || condition > 1e5)
    return;  // differences of R then tell too little of those of its inverse

  // A random symmetric S, of the inverse's pattern.
  Values s = random_numbers(view.stored(), random);
  if (view.shape == Shape::dense) {
    for (std::int64_t j = 0; j < n; ++j)
      for (std::int64_t i = 0; i < j; ++i)
        s[static_cast<std::size_t>(i + j * n)] = s[static_cast<std::size_t>(j + i * n)];
  } else {
    for (std::int64_t d = 0; d <= view.bandwidth; ++d)
      for (std::int64_t j = std::max<std::int64_t>(0, n - d); j < n; ++j)
        s[static_cast<std::size_t>(d * n + j)] = 0.0;
  }
  const Matrix full = whole(view, s.data());
  const std::int64_t p = row.row.parameters;
  Values contracted(static_cast<std::size_t>(p), 0.25);  // contract() adds
  component->contract(s.data(), contracted.data());
  ASSERT_EQ(static_cast<std::int64_t>(component->score_part().size()), p);

  for (std::int64_t k = 0; k < p; ++k) {
    SCOPED_TRACE("parameter " + std::to_string(k));
    const bool choice =
        row.row.sub_code == 9 && row.row.model == 6 && k == 4 && row.own == 5;  // lambda of Matern
    const Matrix rdot = choice ? Matrix(n) : row.derivative(k);
    const Matrix rdot_ri = product(rdot, expected.inverse);
    const Matrix dri = product(expected.inverse, rdot_ri);
    double trace = 0.0, sum = 0.0, size = 1e-3;
    for (std::int64_t i = 0; i < n; ++i) trace += rdot_ri(i, i);
    for (std::size_t i = 0; i < dri.a.size(); ++i) {
      sum += dri.a[i] * full.a[i];
      size += std::fabs(dri.a[i] * full.a[i]);
    }
    const double scale = std::max(1.0, largest(rdot_ri));
    EXPECT_NEAR(component->score_part()[static_cast<std::size_t>(k)], trace, 1e-6 * scale);
    EXPECT_NEAR(contracted[static_cast<std::size_t>(k)] - 0.25, sum, 1e-6 * size);
    for (const auto& [outer, inner] : blocks) {
      const Values x = random_numbers(outer * n * inner, random);
      Values y(x.size(), 99.0);
      component->working(k, x.data(), y.data(), outer, inner);
      EXPECT_LE(block_difference(rdot_ri, x, y, outer, inner), 1e-6 * scale);
    }
  }
  for (const auto& [outer, inner] : blocks) {
    const Values x = random_numbers(outer * n * inner, random);
    Values y(x.size(), 99.0);
    component->apply_inverse(x.data(), y.data(), outer, inner);
    EXPECT_LE(block_difference(expected.inverse, x, y, outer, inner), 1e-11 * condition);
  }
}

constexpr VarianceForm forms[] = {VarianceForm::plain, VarianceForm::one_variance,
                                  VarianceForm::level_variances};

class CorrelationModel : public testing::TestWithParam<Model> {};

TEST_P(CorrelationModel, AgreesWithItsDefinition)
{
  const Model& model = GetParam();
  Random random(20240417);
  for (const VarianceForm form : forms) {
    for (const std::int64_t n : {1, 2, 3, 4, 5, 6, 7, 12}) {
      if (n == 1 && !model.one_level) continue;
      for (int draw = 0; draw < 3; ++draw) {
        Row row(model, n, form, random);
        if (row.at_kink()) continue;
        SCOPED_TRACE(model.name + ", form " + std::to_string(static_cast<int>(form)) + ", levels " +
                     std::to_string(n));
        compare(row, random);
      }
    }
  }
}

TEST_P(CorrelationModel, InvertsLargerMatrices)
{
  const Model& model = GetParam();
  Random random(77);
  for (const std::int64_t n : {33, 64}) {
    for (const VarianceForm form : forms) {
      Row row(model, n, form, random);
      SCOPED_TRACE(model.name + ", form " + std::to_string(static_cast<int>(form)) + ", levels " +
                   std::to_string(n));
      compare(row, random, false);
    }
  }
}

TEST_P(CorrelationModel, TakesIndependentPieces)
{
  const Model& model = GetParam();
  Random random(5);
  for (const VarianceForm form : forms) {
    for (const auto& segments : {std::vector<std::int64_t>{4}, {1, 6}, {5, 11}}) {
      Row row(model, 12, form, random, segments);
      if (row.at_kink()) continue;
      SCOPED_TRACE(model.name + ", form " + std::to_string(static_cast<int>(form)));
      compare(row, random);
    }
  }
}

std::string test_name(const testing::TestParamInfo<Model>& row)
{
  std::string name = row.param.name;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, CorrelationModel, testing::ValuesIn(dense::models()), test_name);

}  // namespace
}  // namespace tolvan
