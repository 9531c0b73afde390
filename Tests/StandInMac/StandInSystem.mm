// Plays the system for the process entry: makes the principal object, starts it, stops it, and ends
// the process. Prints what happens, for the test that runs the program.

#import "Tests/StandInMac/StandInNetworkExtension.h"

#include <cstdio>
#include <cstdlib>
#include <future>

#import "Tests/StandInMac/LogRecord.h"
#include "Tests/StandInMac/WorkerPool.h"

namespace ostravel::standin {

namespace {

void playSystem(const std::string& principalClass) {
  const Class type = NSClassFromString([NSString stringWithUTF8String:principalClass.c_str()]);
  NETransparentProxyProvider* const provider = [[type alloc] init];
  std::printf("principal class %s\n", provider != nil ? principalClass.c_str() : "missing");

  std::promise<bool> started;
  auto* const startedPointer = &started;
  [provider startProxyWithOptions:nil
                completionHandler:^(NSError* error) {
                  startedPointer->set_value(error == nil);
                }];
  std::printf("started %s\n", started.get_future().get() ? "without error" : "with an error");

  std::promise<void> stopped;
  auto* const stoppedPointer = &stopped;
  [provider stopProxyWithReason:NEProviderStopReasonUserInitiated
              completionHandler:^{
                stoppedPointer->set_value();
              }];
  stopped.get_future().wait();
  std::printf("stopped\n");
  [provider release];
  for (const LogLine& line : loggedLines()) {
    std::printf("%s\n", line.text.c_str());
  }
  std::fflush(stdout);
  std::_Exit(EXIT_SUCCESS);
}

}  // namespace

void runSystemExtensionMode(const std::string& principalClass) {
  runOnWorker([principalClass] { playSystem(principalClass); });
}

}  // namespace ostravel::standin
