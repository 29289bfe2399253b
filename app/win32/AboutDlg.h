// The about box (template IDD_ABOUTBOX): the icon, the program's name and purpose, and "OK".
#pragma once

#include <windows.h>

void ShowAboutBox(HWND parent);
