// Public entry of information_api: include this header to use the library.
#pragma once

#include <information_api/information_api_export.h>
#include <information_api/windows_information_imp.h>
