#include "Platform/Linux/Inspection/LateAnswers.h"

#include <poll.h>

// In glibc 2.36 the header lacks this declaration for C++.
extern "C" {
#include <sys/pidfd.h>
}

#include <algorithm>
#include <utility>

namespace ostravel::linuxplatform {

namespace {

using Kind = InspectionQuestion::Kind;

// The question of a process without a recorded executable is not among them. Two others contain the
// stamp of the process; what a process has inherited is not asked again anyway.
bool isLasting(const InspectionQuestion& question) {
  return (question.kind == Kind::find && question.file) || question.kind == Kind::workingFolder ||
         question.kind == Kind::appImage || question.kind == Kind::inheritance ||
         question.kind == Kind::commonView;
}

// The same for every time that it is asked.
std::string keyOf(InspectionQuestion question) {
  question.number = 0;
  return encode(question);
}

// False without a process: poll(2) ignores a negative descriptor.
bool hasEnded(const FileDescriptor& process) {
  pollfd polled{process.get(), POLLIN, 0};
  return ::poll(&polled, 1, 0) != 0;
}

}  // namespace

std::optional<LateAnswers::Subject> LateAnswers::subjectOf(const InspectionQuestion& question) {
  if (!isLasting(question)) {
    return std::nullopt;
  }
  const bool isAboutProcess = question.kind != Kind::commonView;
  FileDescriptor process(isAboutProcess ? ::pidfd_open(question.process.pid, 0) : -1);
  if (isAboutProcess && !process.isOpen()) {
    return std::nullopt;
  }
  return Subject{question.kind, keyOf(question), std::move(process)};
}

void LateAnswers::keep(Subject subject, InspectionAnswer answer) {
  entries_.remove_if([&subject](const Entry& entry) {
    return entry.subject.question == subject.question || hasEnded(entry.subject.process);
  });
  // What was not found may be found the next time.
  const bool isResult = answer.isPositive || subject.kind == Kind::inheritance;
  if (!isResult || hasEnded(subject.process)) {
    return;
  }
  if (entries_.size() >= kCapacity) {
    entries_.pop_front();
  }
  entries_.push_back({std::move(subject), std::move(answer)});
}

std::optional<InspectionAnswer> LateAnswers::take(const InspectionQuestion& question) {
  if (entries_.empty() || !isLasting(question)) {
    return std::nullopt;
  }
  const auto found = std::find_if(
      entries_.begin(), entries_.end(),
      [key = keyOf(question)](const Entry& entry) { return entry.subject.question == key; });
  if (found == entries_.end()) {
    return std::nullopt;
  }
  std::optional<InspectionAnswer> answer;
  if (!hasEnded(found->subject.process)) {
    answer = std::move(found->answer);
  }
  entries_.erase(found);
  return answer;
}

}  // namespace ostravel::linuxplatform
