// SPDX-License-Identifier: MIT
#pragma once

#include <memory>
#include <string>

#include <vela/VelaKeyedArchive.h>
#include <vela/VelaValue.h>

namespace vela::records {

// The keyed archive of a record, "$class" included, ready to travel as a
// dictionary value.
template <class Record>
VelaDictionary archiveRecord(const Record& record) {
  VelaKeyedArchiver coder(Record::kClassName);
  record.encodeWithCoder(coder);
  return coder.archive();
}

// The record a value holds, or nullptr unless it is a dictionary that decodes
// as Record with every key meeting its restriction. A refused value is never
// partly decoded; `whyNot` then says what was wrong, for diagnostics.
template <class Record>
std::shared_ptr<Record> unarchiveRecord(const VelaValue& value, std::string* whyNot = nullptr) {
  const VelaDictionary* archive = value.asDictionary();
  if (archive == nullptr) {
    if (whyNot != nullptr) {
      *whyNot = "expected an archive of " + std::string(Record::kClassName) + ", found " +
                std::string(VelaValueTypeName(value.type()));
    }
    return nullptr;
  }
  VelaKeyedUnarchiver coder(*archive, Record::kClassName);
  std::shared_ptr<Record> record = Record::initWithCoder(coder);
  if (record == nullptr || coder.failed()) {
    if (whyNot != nullptr) {
      *whyNot =
          coder.failed() ? coder.failureReason() : "the archive did not decode as " + std::string(Record::kClassName);
    }
    return nullptr;
  }
  return record;
}

}  // namespace vela::records
