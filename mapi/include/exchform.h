/* The verbs of the mail client's forms, for IMAPIForm::DoVerb. */
#pragma once

#define EXCHIVERB_OPEN 0
#define EXCHIVERB_REPLYTOSENDER 102
#define EXCHIVERB_REPLYTOALL 103
#define EXCHIVERB_FORWARD 104
