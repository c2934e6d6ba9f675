// SPDX-License-Identifier: Apache-2.0
//
// Running out of memory. Whoever handles a call finds out by std::bad_alloc and refuses the call.
// What keeps the service going has nobody to refuse: its lists of connections must grow when they
// must, and an exception would end the process. Such code waits for memory instead.
#pragma once

namespace oxel {

// Once, before the first thread: from here on `new` asks the thread whether it waits.
void InstallPatience();

// While one lives, `new` on its thread waits until there is memory, however long that takes.
class PatientNew {
  public:
    PatientNew();
    ~PatientNew();
    PatientNew(const PatientNew&) = delete;
    PatientNew& operator=(const PatientNew&) = delete;

  private:
    const bool before_;
};

// The other way round: a call is handled in the middle of what is patient.
class ImpatientNew {
  public:
    ImpatientNew();
    ~ImpatientNew();
    ImpatientNew(const ImpatientNew&) = delete;
    ImpatientNew& operator=(const ImpatientNew&) = delete;

  private:
    const bool before_;
};

}  // namespace oxel
