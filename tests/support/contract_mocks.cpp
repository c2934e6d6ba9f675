// SPDX-License-Identifier: Apache-2.0
//
// The mocks' costly parts, compiled once for all tests.
#include "tests/support/contract_mocks.h"

template class testing::NiceMock<oxel::test::MockFSM>;
template class testing::NiceMock<oxel::test::MockExport>;
template class testing::NiceMock<oxel::test::MockBkEndProc>;

namespace oxel::test {

MockFSM::MockFSM() = default;
MockFSM::~MockFSM() = default;

MockExport::MockExport(std::string path, ExportPtr parent)
    : Export(std::move(path), std::move(parent)) {}
MockExport::~MockExport() = default;

MockBkEndProc::MockBkEndProc(std::string path, nfs_fh3 handle)
    : path_(std::move(path)), handle_(handle) {
    ON_CALL(*this, GetPath).WillByDefault(testing::ReturnRef(path_));
    ON_CALL(*this, GetFileHandle).WillByDefault([this](nfs_fh3* out) { *out = handle_; });
}
MockBkEndProc::~MockBkEndProc() = default;

}  // namespace oxel::test
