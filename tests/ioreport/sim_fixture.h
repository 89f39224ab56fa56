// The private simulator that the registry and hub tests share. The process
// talks to one simulator for its whole life, so it is started on first use
// and stopped when the process ends.
#pragma once

#include <harness.h>

#include <cstdlib>
#include <memory>

namespace rt {

inline talvex::test::Simulator &simulator() {
    static std::unique_ptr<talvex::test::Simulator> sim = [] {
        auto s = std::make_unique<talvex::test::Simulator>();
        setenv("TALVEX_SIM_SOCKET", s->socket().c_str(), 1);
        return s;
    }();
    return *sim;
}

}  // namespace rt
