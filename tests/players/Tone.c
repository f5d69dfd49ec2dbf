/* Tone: the Envelope test player taking any module (a steady tone). */
#define ENVELOPE_TONE
#include "Envelope.c"
