// The platform audit log. Entries are written as JSON lines, one per entry,
// appended to /var/log/quarro/witnessd/audit.log under the sysroot:
//   {"time":"2026-11-22T08:00:00Z","eventID":"api.call","subject":"alice",
//    "object":"com.quarro.hyv.attestation.status.get","result":true,
//    "items":{"reason":"..."}}
// "items" is present only when the entry has extra items.
#pragma once

#include <cstddef>
#include <string>

inline constexpr const char* kQrwAuditLogPath = "/var/log/quarro/witnessd/audit.log";

struct QrwAuditItem {
  const char* name;
  const char* value;
};

// QrwAudit_LogList appends one entry. Returns false when the log cannot be
// opened or written (logged at error level); the caller's operation goes on.
bool QrwAudit_LogList(const char* event_id, const char* subject, const char* object, bool success,
                      const QrwAuditItem* items, size_t num_items);

// QrwAudit_SetLogPath replaces the audit log's path (tests); an empty path
// restores the default under the sysroot.
void QrwAudit_SetLogPath(const std::string& path);
