// What tests of all folders share: comparison of numbers, the messages of a handler as text, a folder for
// files.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "api/error_handler.h"

namespace tolvan {

/// |a - b| <= rel * max(|a|, |b|), or <= abs; never for a NaN.
testing::AssertionResult near(double a, double b, double rel, double abs = 0.0);
/// The same for each pair of elements; tells the worst.
testing::AssertionResult near(const std::vector<double>& a, const std::vector<double>& b, double rel,
                              double abs = 0.0);

/// One line a message: "4/3 <text>" with type and code ("-" where the code is not set), "!" ahead of
/// terminating ones.
std::string messages_text(const ERROR_HANDLER& eh);
/// True if no message is held and the routine stack is empty; tells the messages otherwise.
testing::AssertionResult clean(const ERROR_HANDLER& eh);
/// True if some message contains the words; tells the messages otherwise.
testing::AssertionResult has_message(const ERROR_HANDLER& eh, std::string_view words);

/// A fresh folder that goes away with its files.
class TempFolder {
 public:
  TempFolder();
  ~TempFolder();
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
  std::string path(std::string_view name) const;
  /// Writes a file and gives its path.
  std::string file(std::string_view name, std::string_view contents) const;

 private:
  std::string folder_;
};

}  // namespace tolvan
