// A program written as an outside user would: only installed headers.
#include <Corvid/Corvid.h>

#include <iostream>

int main() {
  Brio::Hash h(7);
  h.mix(42u);
  if (Corvid::version().empty()) return 1;
  std::cout << "outside program ok " << Corvid::version() << " " << h.result() << "\n";
  return 0;
}
