// The engine's messages of one run: gathered call by call, shown, and turned into the exit code.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/engine.h"
#include "app/json_value.h"
#include "app/problem.h"

namespace tolvan::driver {

enum class Talk { quiet, normal, verbose };

class Messages {
 public:
  /// Takes the messages of the engine's last call, if it left any.
  void collect(Engine& engine);
  /// A message of the driver's own, as the engine would hold it.
  void add_error(const std::string& text);
  /// Tells the line and column of a document's file where the last message gives the position of a fault in it.
  void add_place(const std::string& name, std::string_view document);

  bool terminated() const;
  std::size_t warnings() const;
  Exit failure() const;        // what kind of failure stopped the run; for a terminated run only
  void show(Talk talk) const;  // on standard error
  std::string document() const { return write_json(information_); }  // the error_information object

 private:
  Json information_ = no_messages();
  static Json no_messages();
};

}  // namespace tolvan::driver
