// SPDX-License-Identifier: MIT
#include "secret_input.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

namespace velactl {

std::string readSecretInput(const std::string& source, std::string& text) {
  std::ifstream file;
  std::istream* in = &std::cin;
  if (source != "-") {
    file.open(source, std::ios::binary);
    if (!file) return "cannot read " + source + ": " + std::strerror(errno);
    in = &file;
  }
  text.assign(kMaxSecretInput + 1, '\0');
  in->read(text.data(), static_cast<std::streamsize>(text.size()));
  if (in->bad()) return "cannot read " + (source == "-" ? std::string("standard input") : source);
  text.resize(static_cast<std::size_t>(in->gcount()));
  if (text.size() > kMaxSecretInput) return "more than " + std::to_string(kMaxSecretInput) + " bytes";
  return {};
}

void refuseSecretOption(CLI::App& command, const std::string& name, const std::string& instead) {
  command
      .add_option_function<std::string>(name,
                                        [name, instead](const std::string&) {
                                          throw CLI::ValidationError(
                                              name,
                                              "secrets are not taken on the command line, where other users "
                                              "can see them; pass them with " +
                                                  instead + " FILE or " + instead + " - (standard input)");
                                        })
      ->expected(0, 1)
      ->group("");
}

}  // namespace velactl
