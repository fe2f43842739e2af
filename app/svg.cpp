#include "app/svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iterator>

#include "app/text_table.h"

namespace tolvan::driver {
namespace {

constexpr double width = 460.0, height = 320.0, left = 62.0, right = 14.0, top = 30.0, bottom = 46.0;

/// A number in a coordinate: two decimals are below what a screen shows.
std::string at(double x)
{
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", x);
  return text;
}

std::string label_at(double x, double y, std::string_view anchor, const std::string& words, std::string_view more = "")
{
  return "<text x=\"" + at(x) + "\" y=\"" + at(y) + "\" text-anchor=\"" + std::string(anchor) + "\"" + std::string(more) + ">" +
         escaped(words) + "</text>";
}

/// Rounded values between two, some five of them.
std::vector<double> ticks(double from, double to)
{
  const double rough = (to - from) / 5.0;
  const double power = std::pow(10.0, std::floor(std::log10(rough)));
  const double step = power * (rough / power < 1.5 ? 1.0 : rough / power < 3.5 ? 2.0 : rough / power < 7.5 ? 5.0 : 10.0);
  std::vector<double> out;
  for (double k = std::ceil(from / step); k * step <= to + 1e-9 * step && out.size() < 20; k += 1.0) out.push_back(k * step + 0.0);  // 0, not -0
  return out;
}

/// A range of values with a margin, never empty.
struct Range {
  double from = 0.0, to = 1.0;
  Range(const std::vector<double>& values, double margin = 0.04)
  {
    bool any = false;
    for (const double v : values) {
      if (!std::isfinite(v)) continue;
      from = any ? std::min(from, v) : v;
      to = any ? std::max(to, v) : v;
      any = true;
    }
    double room = margin * (to - from);
    if (!(to > from)) room = from == 0.0 ? 1.0 : 0.1 * std::fabs(from);
    from -= room;
    to += room;
  }
  double place(double v, double first, double last) const { return first + (v - from) / (to - from) * (last - first); }
};

/// The frame of a figure with its axes; what is drawn goes in between.
class Figure {
 public:
  Figure(const Axes& axes, Range x, Range y) : x_(x), y_(y)
  {
    out_ = "<figure><svg viewBox=\"0 0 " + at(width) + " " + at(height) + "\" role=\"img\" aria-label=\"" + escaped(axes.title) + "\">";
    out_ += "<title>" + escaped(axes.title) + "</title>";
    out_ += label_at(width / 2, 18, "middle", axes.title, " class=\"head\"");
    for (const double t : ticks(x_.from, x_.to)) {
      const double p = px(t);
      out_ += "<line class=\"grid\" x1=\"" + at(p) + "\" x2=\"" + at(p) + "\" y1=\"" + at(top) + "\" y2=\"" + at(height - bottom) + "\"/>";
      out_ += label_at(p, height - bottom + 15, "middle", general_cell(t));
    }
    for (const double t : ticks(y_.from, y_.to)) {
      const double p = py(t);
      out_ += "<line class=\"grid\" y1=\"" + at(p) + "\" y2=\"" + at(p) + "\" x1=\"" + at(left) + "\" x2=\"" + at(width - right) + "\"/>";
      out_ += label_at(left - 5, p + 4, "end", general_cell(t));
    }
    out_ += "<rect class=\"frame\" x=\"" + at(left) + "\" y=\"" + at(top) + "\" width=\"" + at(width - left - right) + "\" height=\"" +
            at(height - top - bottom) + "\"/>";
    out_ += label_at((left + width - right) / 2, height - 10, "middle", axes.x);
    out_ += label_at(0, 0, "middle", axes.y, " transform=\"translate(14 " + at((top + height - bottom) / 2) + ") rotate(-90)\"");
  }
  double px(double v) const { return x_.place(v, left, width - right); }
  double py(double v) const { return y_.place(v, height - bottom, top); }
  void add(const std::string& text) { out_ += text; }
  void line(double x1, double y1, double x2, double y2)
  {
    out_ += "<line class=\"guide\" x1=\"" + at(px(x1)) + "\" y1=\"" + at(py(y1)) + "\" x2=\"" + at(px(x2)) + "\" y2=\"" + at(py(y2)) + "\"/>";
  }
  /// The whole figure; the caption stands as it is.
  std::string finish(const std::string& caption = "")
  {
    return out_ + "</svg>" + (caption.empty() ? "" : "<figcaption>" + caption + "</figcaption>") + "</figure>\n";
  }

 private:
  Range x_, y_;
  std::string out_;
};

/// To three digits.
std::string short_number(double x)
{
  char text[32];
  std::snprintf(text, sizeof text, "%.3g", x);
  return text;
}

/// From blue over white to red; a number in [-1, 1].
std::string colour(double v)
{
  v = std::clamp(v, -1.0, 1.0);
  const auto mix = [v](int cold, int hot) {
    const double to = v < 0 ? cold : hot;
    return static_cast<int>(std::lround(255.0 + (to - 255.0) * std::fabs(v)));
  };
  char text[16];
  std::snprintf(text, sizeof text, "#%02x%02x%02x", mix(33, 178), mix(102, 24), mix(172, 43));
  return text;
}

}  // namespace

std::string escaped(std::string_view text)
{
  std::string out;
  for (const char c : text) {
    if (c == '&')
      out += "&amp;";
    else if (c == '<')
      out += "&lt;";
    else if (c == '>')
      out += "&gt;";
    else if (c == '"')
      out += "&quot;";
    else if (static_cast<unsigned char>(c) >= 32 || c == '\t' || c == '\n')
      out += c;
  }
  return out;
}

double normal_quantile(double p)
{
  // Newton's steps on the normal integral, from the logistic approximation.
  double z = std::log(p / (1.0 - p)) / 1.702;
  for (int k = 0; k < 20; ++k) {
    const double density = 0.3989422804014327 * std::exp(-0.5 * z * z);
    const double step = (0.5 * std::erfc(-z / std::sqrt(2.0)) - p) / density;
    if (!std::isfinite(step)) break;
    z -= std::clamp(step, -1.0, 1.0);
    if (std::fabs(step) < 1e-12) break;
  }
  return z;
}

std::string line_figure(const Axes& axes, const std::vector<double>& x, const std::vector<std::vector<double>>& series,
                        const std::vector<std::string>& names)
{
  constexpr const char* colours[] = {"#1f5fa8", "#b2182b", "#3c8d40", "#d98e00", "#7b3294", "#008080", "#8c510a", "#555555"};
  std::vector<double> all;
  for (const auto& each : series) all.insert(all.end(), each.begin(), each.end());
  Figure figure(axes, Range(x), Range(all));
  std::string legend;
  for (std::size_t s = 0; s < series.size(); ++s) {
    const auto& y = series[s];
    if (y.size() != x.size()) continue;
    const std::string paint = colours[s % std::size(colours)];
    if (s < names.size())
      legend += "<span class=\"name\"><span style=\"color:" + paint + "\">&#9632;</span> " + escaped(names[s]) + "</span> ";
    std::string points, dots;
    for (std::size_t k = 0; k < x.size(); ++k) {
      if (!std::isfinite(y[k])) continue;
      points += at(figure.px(x[k])) + "," + at(figure.py(y[k])) + " ";
      dots += "<circle fill=\"" + paint + "\" cx=\"" + at(figure.px(x[k])) + "\" cy=\"" + at(figure.py(y[k])) + "\" r=\"3\"/>";
    }
    figure.add("<polyline class=\"line\" stroke=\"" + paint + "\" points=\"" + points + "\"/>" + dots);
  }
  return figure.finish(legend);
}

std::string scatter_figure(const Axes& axes, const std::vector<double>& x, const std::vector<double>& y, Through line)
{
  const Range range(x);
  Figure figure(axes, range, Range(y));
  if (line.drawn) {
    // Kept inside the frame.
    const Range ry(y);
    double x1 = range.from, x2 = range.to;
    if (line.b > 0.0) {
      x1 = std::max(x1, (ry.from - line.a) / line.b);
      x2 = std::min(x2, (ry.to - line.a) / line.b);
    }
    if (x2 > x1) figure.line(x1, line.a + line.b * x1, x2, line.a + line.b * x2);
  }
  std::string dots;
  for (std::size_t k = 0; k < x.size() && k < y.size(); ++k) {
    dots += "<circle class=\"point\" cx=\"" + at(figure.px(x[k])) + "\" cy=\"" + at(figure.py(y[k])) + "\" r=\"2\"/>";
  }
  figure.add(dots);
  return figure.finish();
}

std::string histogram_figure(const Axes& axes, const std::vector<double>& values)
{
  const Range range(values, 0.0);
  const double n = std::max<double>(1.0, static_cast<double>(values.size()));
  const auto bins = static_cast<std::size_t>(std::clamp(std::ceil(std::log2(n)) + 1.0, 5.0, 40.0));  // Sturges (1926)
  std::vector<double> count(bins, 0.0);
  for (const double v : values) {
    const double place = (v - range.from) / (range.to - range.from) * static_cast<double>(bins);
    count[std::min(bins - 1, static_cast<std::size_t>(std::max(0.0, place)))] += 1.0;
  }
  std::vector<double> heights = count;
  heights.push_back(0.0);
  Range tall(heights, 0.0);
  tall.to *= 1.05;
  Figure figure(axes, range, tall);
  const double step = (range.to - range.from) / static_cast<double>(bins);
  for (std::size_t k = 0; k < bins; ++k) {
    const double x1 = figure.px(range.from + static_cast<double>(k) * step), x2 = figure.px(range.from + static_cast<double>(k + 1) * step);
    const double y = figure.py(count[k]);
    figure.add("<rect class=\"bar\" x=\"" + at(x1) + "\" y=\"" + at(y) + "\" width=\"" + at(x2 - x1) + "\" height=\"" +
               at(figure.py(0.0) - y) + "\"/>");
  }
  return figure.finish();
}

std::string heat_map_figure(const Axes& axes, const std::vector<double>& cells, std::int64_t rows, std::int64_t columns,
                            double first)
{
  double largest = 0.0, smallest = 0.0;
  for (const double v : cells) {
    if (!std::isfinite(v)) continue;
    largest = std::max(largest, v);
    smallest = std::min(smallest, v);
  }
  const double size = std::max(largest, -smallest);
  const double edge = first - 0.5;
  Range x({edge, static_cast<double>(columns) + edge}, 0.0), y({edge, static_cast<double>(rows) + edge}, 0.0);
  Figure figure(axes, x, y);
  for (std::int64_t r = 0; r < rows; ++r) {
    for (std::int64_t c = 0; c < columns; ++c) {
      const double v = cells[static_cast<std::size_t>(r * columns + c)];
      const double x1 = figure.px(static_cast<double>(c) + edge), x2 = figure.px(static_cast<double>(c + 1) + edge);
      const double y1 = figure.py(static_cast<double>(r + 1) + edge), y2 = figure.py(static_cast<double>(r) + edge);
      const std::string fill = std::isfinite(v) ? colour(size > 0.0 ? v / size : 0.0) : "#d8d8d8";
      figure.add("<rect fill=\"" + fill + "\" x=\"" + at(x1) + "\" y=\"" + at(y1) + "\" width=\"" + at(x2 - x1) + "\" height=\"" +
                 at(y2 - y1) + "\"/>");
    }
  }
  const std::string cold = smallest < 0.0 ? "blue " + escaped(short_number(-size)) + ", " : "";
  return figure.finish(cold + "white 0, red " + escaped(short_number(size)) + "; grey: no value");
}

}  // namespace tolvan::driver
