// Resource ids of the program: dialog templates, controls, strings and the icon.
#pragma once

#define IDC_STATIC (-1)
#define IDM_ABOUTBOX 0x0010
#define IDD_ABOUTBOX 100
#define IDS_ABOUTBOX 101
#define IDD_VELMARTASKSCHEDULER_DIALOG 102
#define IDS_CONNECTION_ERROR 104
#define IDS_CLOSE_QUESTION 105
#define IDS_THREAD_ERROR 106
#define IDS_COMMAND_JOBS_FAILED 109
#define IDR_MAINFRAME 128

#define IDC_MINIMIZE 1000
#define IDC_ACTIVITY_LIST 1001
#define IDC_CLEAR_LIST 1002
#define IDC_COPY_LIST 1003
#define IDC_ABOUT_TEXT 1004
