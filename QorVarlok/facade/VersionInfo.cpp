#include "QorVarlok/ZelVarlok.h"

extern "C" QORVARLOK_API const char* GetVarlokVersionInfo() { return "0.2.7-B"; }
