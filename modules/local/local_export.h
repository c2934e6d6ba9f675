// SPDX-License-Identifier: Apache-2.0
//
// A share whose objects are files below a local directory.
#pragma once

#include <boost/shared_ptr.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <typeinfo>

#include "backend/Export.h"
#include "backend/client_rules.h"
#include "modules/local/object.h"
#include "modules/local/share_root.h"

namespace oxel::local {

// Constant after construction; any thread.
class LocalExport final : public Export {
  public:
    LocalExport(std::string path, ClientRules rules, boost::shared_ptr<LocalObject> rootObject);
    ~LocalExport() override;

    int AddMountPoint(const CLuIPAddr& client, nfs_fh3* root) override;
    FSModuleType GetFSMType() override { return root_->Type(); }
    unsigned IsWritable() override { return rules_.AnyWritable() ? 1 : 0; }
    bool IsClientAllowed(XOIPAddr client, const std::string& host) override;

    ShareRoot& Root() const { return *root_; }
    const boost::shared_ptr<LocalObject>& RootObject() const { return rootObject_; }
    const ClientRules& Rules() const { return rules_; }
    // Different for every LocalExport of the process's life, so for every state of the rules.
    uint64_t Serial() const { return serial_; }

  private:
    const ClientRules rules_;
    const boost::shared_ptr<LocalObject> rootObject_;
    const std::shared_ptr<ShareRoot> root_;
    const uint64_t serial_;
};

// The share when it is one of this module's, else null. The class is final, so that comparing types
// does, which costs far less than a dynamic_cast.
inline LocalExport* AsLocal(Export* share) {
    return share != nullptr && typeid(*share) == typeid(LocalExport)
               ? static_cast<LocalExport*>(share)
               : nullptr;
}

}  // namespace oxel::local
