// SPDX-License-Identifier: Apache-2.0
//
// The real oxelctl, and a companion service in this process that answers what a test wants.
#pragma once

#include <cstdlib>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/base/child_process.h"
#include "tests/companion/control_fixture.h"

namespace oxel::test {

class Oxelctl : public ControlTest {
  protected:
    static Outcome Run(std::vector<std::string> arguments) {
        const char* program = getenv("OXELCTL");
        arguments.insert(arguments.begin(),
                         program != nullptr ? program : BesideMe("../bin/oxelctl"));
        return RunProgram(std::move(arguments));
    }
    static Outcome RunHere(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"-vm", XOPI_Focus::focus()});
        return Run(std::move(arguments));
    }
    // Remembers the last request; answers `body`.
    void Handle(const std::string& verb, nlohmann::json body) {
        SetControlHandler(verb, [this, body](const nlohmann::json& request) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                request_ = request;
            }
            ControlReply reply;
            reply.body = body;
            return reply;
        });
    }
    nlohmann::json LastRequest() {
        std::lock_guard<std::mutex> lock(mutex_);
        return request_;
    }

  private:
    std::mutex mutex_;
    nlohmann::json request_;  // guarded by mutex_
};

}  // namespace oxel::test
