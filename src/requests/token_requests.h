// Requests about tokens and groups: a token client's logon and removal, and the consoles'
// reading and editing of tokens, groups and rights. Each handler reads the current record,
// rewrites it as its reply and sends it as the request table orders.
#pragma once

#include <string>

#include "requests/request.h"

namespace kalvo {

void TokenLogon(Request& r);               // 101
void TokenRemoved(Request& r);             // 102, also the server's notice of a closing client
void GetGroups(Request& r);                // 301
void SetGroups(Request& r);                // 302
void GetTokenRightsAndGroups(Request& r);  // 307
void SetTokenData(Request& r);             // 310
void GetMemberChoices(Request& r);         // 316
void DeleteTokens(Request& r);             // 328

// The token list, each token with the addresses of its open connections: those whose tag
// begins with the token's GUID, in connection order, joined by ",".
std::string TokenList(RequestContext& ctx);

}  // namespace kalvo
