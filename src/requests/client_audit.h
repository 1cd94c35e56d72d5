// The audit entries that connection events write about token clients. The database layer
// implements this; until a database is configured the server uses NullClientAudit.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kalvo {

// Audit action codes.
enum class AuditAction : int32_t {
  kConnect = 1,
  kExecute = 2,
  kBackup = 3,
  kRestore = 4,
  kRemove = 5,
  kDisconnect = 6,
  kError = 7,
};

class ClientAudit {
 public:
  virtual ~ClientAudit() = default;
  // Writes one audit entry for the client identified by `connection_tag`. Gives "OK" or
  // "ERROR"; never throws.
  virtual std::string DBLogClientAction(std::string_view connection_tag, AuditAction action,
                                        std::string_view address, std::string_view text) = 0;
};

// Writes nothing and answers "OK".
class NullClientAudit : public ClientAudit {
 public:
  std::string DBLogClientAction(std::string_view, AuditAction, std::string_view,
                                std::string_view) override {
    return "OK";
  }
};

// Hands every entry to a target that can be replaced at run time (the database writer once
// one is configured); without a target it behaves as NullClientAudit.
class ForwardingClientAudit : public ClientAudit {
 public:
  // `target` must outlive its use here; null restores the do-nothing behaviour.
  void SetTarget(ClientAudit* target) { target_ = target; }
  std::string DBLogClientAction(std::string_view tag, AuditAction action, std::string_view address,
                                std::string_view text) override {
    return target_ == nullptr ? "OK" : target_->DBLogClientAction(tag, action, address, text);
  }

 private:
  ClientAudit* target_ = nullptr;
};

}  // namespace kalvo
