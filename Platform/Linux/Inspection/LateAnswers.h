#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <optional>
#include <string>

#include "Base/FileDescriptor.h"
#include "Platform/Linux/Inspection/InspectionMessage.h"

namespace ostravel::linuxplatform {

// The answers that came after their deadline, for the same questions asked again: an inspector that
// is always late would otherwise never identify a process. Keeps answers that stay true for as long
// as the process runs the same program, and none about a process that has ended, so that they never
// describe a later process with the same number. Owned by an InspectorConnection; used by one
// thread.
class LateAnswers {
 public:
  // More processes than start within the delay of an answer. One descriptor each.
  static constexpr std::size_t kCapacity = 32;

  // A question whose answer may be used later, and a reference to its process (pidfd_open(2)), if
  // it is about one.
  struct Subject {
    InspectionQuestion::Kind kind;
    std::string question;
    FileDescriptor process;
  };

  // To be called before the question is sent, so that the answer cannot be about an earlier
  // process. Empty if a late answer to it would be worthless: unless the question names the program
  // that the process runs, the process may run another one by then.
  static std::optional<Subject> subjectOf(const InspectionQuestion& question);

  // Replaces an earlier answer to the same question; drops the oldest answer if there are too many.
  void keep(Subject subject, InspectionAnswer answer);
  // Removes the answer that it returns. Empty if there is none or the process has ended.
  std::optional<InspectionAnswer> take(const InspectionQuestion& question);
  std::size_t size() const { return entries_.size(); }

 private:
  struct Entry {
    Subject subject;
    InspectionAnswer answer;
  };

  // The oldest first.
  std::list<Entry> entries_;
};

}  // namespace ostravel::linuxplatform
