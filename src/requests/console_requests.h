// Requests that concern the connection itself: the echo, and a console's registration and
// announcement.
#pragma once

#include "requests/request.h"

namespace kalvo {

void Echo(Request& r);          // 311
void ConsoleLogin(Request& r);  // 401
void AdminLogin(Request& r);    // 501

}  // namespace kalvo
