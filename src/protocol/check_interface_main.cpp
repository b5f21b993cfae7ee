// SPDX-License-Identifier: MIT
// Run by the build: fails it when the interface XML and the protocol's member
// table disagree, so that neither can drift from the other unnoticed.
//   vela_check_interface XML STAMP
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include "protocol/introspection.h"
#include "protocol/names.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: vela_check_interface XML STAMP\n";
    return 2;
  }
  std::ifstream in(argv[1]);
  std::stringstream xml;
  xml << in.rdbuf();
  if (!in) {
    std::cerr << argv[1] << ": cannot be read\n";
    return 1;
  }
  std::string whyNot;
  const auto methods =
      vela::protocol::readInterfaceMethods(xml.str(), vela::protocol::kHandsetActionsInterface, &whyNot);
  if (!methods) {
    std::cerr << argv[1] << ": " << whyNot << '\n';
    return 1;
  }
  if (auto mismatch = vela::protocol::compareWithDescription(*methods)) {
    std::cerr << argv[1] << " disagrees with src/protocol/members.h: " << *mismatch << '\n';
    return 1;
  }
  std::ofstream(argv[2]) << "checked\n";
  return 0;
}
