// Tokens: the smart cards the server knows by their GUID, registered on their first logon and
// then described by administrators, with the certificate stored for them. The result texts are
// passed on unchanged as packet text, so their delimiters are part of the protocol.
//
// Every operation connects with the Database's settings, logs "<name> (OK)" when it is done,
// and gives its empty result ("", false, 0, "ERROR") when it cannot connect or a run-time error
// ends it (see RunOperation). `database` must outlive the call.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "db/connection.h"
#include "db/schema.h"

namespace kalvo {

// A token's first logon or a later one. A known token gets the time, address and user DN of
// this logon and the result is the time stamp, the NUL character and the DN. An unknown one
// is inserted (person "unknown (<logon name>)", or "" without a logon name; creation = last
// use = now) and joins the group named "Jeder"; the result is "NEWTOKEN". "" when a statement
// fails or there is no group "Jeder" (the token then stays registered without a group).
std::string DBSetLastTokenConnect(Database& database, std::string_view guid,
                                  std::string_view logon_name, std::string_view ip,
                                  std::string_view user_dn);

// Sets person and description of a token from `data`, "person|description". The result of
// the update (an unknown token is no failure); false also when `data` has no "|".
bool DBSetTokenData(Database& database, std::string_view guid, std::string_view data);

// The token's groups: for each, its name, CRLF and its GUID; groups separated by "|".
std::string DBGetTokenData(Database& database, std::string_view guid);

// The addresses of the open connections of the token with `guid`, joined by ",".
using TokenAddresses = std::function<std::string(std::string_view guid)>;

// Every token as guid$person$description$creation$last use$last IP$user DN$certificate$
// addresses, tokens separated by "|". The certificate field is the language text GENERAL/YES
// or GENERAL/NO; the addresses come from `addresses`. "" when there is no token.
std::string DBGetTokenList(Database& database, const LanguageLookup& language,
                           const TokenAddresses& addresses);

// True when the token has a certificate that is not empty. Uses the caller's connection.
bool DBTokenHasCertificate(DbConnection& connection, std::string_view guid);
// The same on a connection of its own: 1 or 0 (0 also on failure).
int32_t DBTokenHasCertificate(Database& database, std::string_view guid);

// Deletes the tokens whose GUIDs `list` holds (separated by CRLF) with their memberships,
// backups, action memberships and states and audit entries. Every statement is tried;
// "OK" when none failed (deleting nothing is no failure), else "ERROR".
std::string DBDeleteToken(Database& database, std::string_view list);

// The union of the ability bits of the token's groups (see DBGetMaxValue); 0 for a token in
// no group.
int32_t DBGetTokenRights(Database& database, std::string_view guid);

// The union of ability bits of `text`, numbers separated by `separator`: 0 for "", the value
// itself (every bit) for a single number, and for several only the bits 1, 2, 4, 8 and 16.
// Throws RuntimeError 13 when an element is no number.
int32_t DBGetMaxValue(std::string_view text, std::string_view separator);

// Stores `certificate` (its bytes) with the token. False when the token does not exist or
// the write fails.
bool DBSetCertificate(Database& database, std::string_view certificate, std::string_view guid);
// The stored certificate; "" when there is none or the token does not exist.
std::string DBGetCertificateData(Database& database, std::string_view guid);

}  // namespace kalvo
