// Certificates for tokens: made by the certificate library on a console's request and stored
// with the token; read back by the consoles. All three answer without the "Daten gesendet"
// line.
#pragma once

#include "requests/request.h"

namespace kalvo {

// 601: Data the seven request fields separated by NUL, Misc1 the token GUID. Misc1 of the
// answer is 0 (Data the certificate), 1 (not created) or 2 (created, not stored).
void CreateTokenCertificate(Request& r);
// 602: Data "True" or "False": whether the token in Data has a certificate.
void TokenHasCertificate(Request& r);
// 603: Data the stored certificate record of the token in Data.
void GetTokenCertificate(Request& r);

}  // namespace kalvo
