/* Subsong: the Envelope test player with five silent subsongs. */
#define ENVELOPE_SUBSONGS
#define ENVELOPE_NAME "Subsong"
#include "Envelope.c"
