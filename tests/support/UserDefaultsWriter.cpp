// Test child: kq_defaults_writer PATH KEY VALUE
// Stores VALUE under KEY in the settings file PATH, synchronizes, prints "synchronized" on
// stdout and then waits to be killed. The parent kills it with SIGKILL, so nothing runs after
// the print that could still save the settings.

#include <KQVisitorCore/Platform/UserDefaults.h>

#include <unistd.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: kq_defaults_writer PATH KEY VALUE\n");
    return 2;
  }
  auto* defaults = new kq::UserDefaults(argv[1]);  // never destroyed: no save at exit
  defaults->setObject(argv[3], argv[2]);
  if (!defaults->synchronize()) {
    return 1;
  }
  std::printf("synchronized\n");
  std::fflush(stdout);
  while (true) {
    ::pause();
  }
}
