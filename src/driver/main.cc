// kestrix APP [switches]: runs one cycle of application APP in the working directory.
// Exit status 1 after a successful cycle, 0 otherwise (a fatal stop included).
#include <exception>
#include <new>
#include <string>

#include "base/report.h"
#include "driver/cycle.h"

int main(int argc, char** argv) {
  try {
    return kx::driver::RunCycle(argc, argv);
  } catch (const kx::Stop&) {
    kx::FlushOutput();
    return 0;
  } catch (const std::bad_alloc&) {
    kx::Say("Error: out of memory: the run needs more memory than this machine can give it");
    kx::Say("STOPPING...");
    kx::FlushOutput();
    return 0;
  } catch (const std::exception& e) {
    kx::Say(std::string("Error: ") + e.what());
    kx::Say("STOPPING...");
    kx::FlushOutput();
    return 0;
  }
}
