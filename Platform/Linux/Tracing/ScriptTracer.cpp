#include "Platform/Linux/Tracing/ScriptTracer.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "Platform/Linux/Tracing/KernelUnits.h"
#include "ScriptTracerProgram.h"

namespace ostravel::linuxplatform {

namespace {

// Must match ScriptTracer.bpf.c.
struct Script {
  std::uint64_t startTimeNanoseconds;
  std::uint64_t stackStart;
  std::uint64_t rootInode;
  std::uint64_t folderInode;
  std::uint32_t rootDevice;
  std::uint32_t folderDevice;
  std::uint32_t mountNamespace;
  std::uint32_t isLaunching;
  std::uint32_t isByEnv;
  std::uint32_t unused;
  std::array<char, 256> path;
};

// No control group is needed: the programs are attached to tracepoints.
constexpr int kNoGroup = -1;

}  // namespace

platform::Result<std::unique_ptr<ScriptTracer>> ScriptTracer::start() {
  KernelProgram object(
      ::bpf_object__open_mem(kScriptTracerProgram, sizeof kScriptTracerProgram, nullptr));
  if (!object) {
    return platform::systemCallError(errno, "the program is not understood");
  }
  if (::bpf_object__load(object.get()) != 0) {
    return platform::systemCallError(errno, "the program cannot be loaded");
  }
  std::unique_ptr<ScriptTracer> tracer(new ScriptTracer(std::move(object)));
  if (auto error = attachPrograms(tracer->object_.get(), kNoGroup, tracer->links_)) {
    return *std::move(error);
  }
  return tracer;
}

ScriptTracer::ScriptTracer(KernelProgram object)
    : object_(std::move(object)),
      scripts_(::bpf_object__find_map_by_name(object_.get(), "scripts")) {}

ScriptTracer::~ScriptTracer() = default;

std::optional<ScriptRecord> ScriptTracer::recordOf(pid_t process) const {
  Script script{};
  const auto key = static_cast<std::uint32_t>(process);
  if (::bpf_map__lookup_elem(scripts_, &key, sizeof key, &script, sizeof script, 0) != 0) {
    return std::nullopt;
  }
  return ScriptRecord{
      .startTime = clockTicks(script.startTimeNanoseconds),
      .stackStart = script.stackStart,
      .root = {userDevice(script.rootDevice), script.rootInode},
      .folder = {userDevice(script.folderDevice), script.folderInode},
      .mountNamespace = script.mountNamespace,
      .path = std::string(script.path.data(), ::strnlen(script.path.data(), script.path.size())),
      .isByEnv = script.isByEnv != 0};
}

}  // namespace ostravel::linuxplatform
