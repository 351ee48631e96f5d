// kestrix APP [switches]: runs one cycle of application APP in the working directory.
// Exit status 1 after a successful cycle, 0 otherwise (a fatal stop included).
#include "base/report.h"

int main(int argc, char** argv) {
  try {
    kx::Say("Kestrix Optimization Suite");
    kx::Fatal({"The run cycle is not available yet"});
  } catch (const kx::Stop&) {
    kx::FlushOutput();
    return 0;
  }
}
