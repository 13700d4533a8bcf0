// What a user's program does first. No adapter library is installed here, so that the hand must
// come back unconnected, with a word on why, and every call must fail in its told way.

#include <ibr7_tactile_sensor_1d.h>
#include <korvane.h>
#include <korvane_brisa.h>
#include <korvane_brisa_solver.h>
#include <korvane_export.h>
#include <korvane_types.h>
#include <korvane_version.h>
#include <ota_load.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
    std::printf("%s headers, %s library\n", KORVANE_VERSION, talvera::korvane::korvane_version());
    return 0;
  }
  using talvera::korvane::HandType;
  using talvera::korvane::KorvaneBrisa;
  const auto hand = KorvaneBrisa::createHandByZlgcan(HandType::RIGHT, 1);
  const bool as_told = !hand->connected && hand->GetJointMotorPosi(1) == 0 &&
                       hand->SetJointMotorPosi(1, 5) == -1 && hand->GetAllJointMotorPosi().empty();
  const talvera::korvane::Version version{1, 2, 3, 0};
  const bool solver_works = hand->solver->SetHandGesture(0).size() == 10;
  std::printf("consumer %s\n",
              as_told && solver_works && version.ToString() == "1.2.3" ? "ok" : "FAILED");
  return as_told && solver_works ? 0 : 1;
}
