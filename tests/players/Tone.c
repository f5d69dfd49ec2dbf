/* Tone: the Envelope test player taking any module (a steady tone). */
#define ENVELOPE_TONE
#define ENVELOPE_NAME "Tone"
#include "Envelope.c"
