/* Subsong: the Envelope test player with five silent subsongs. */
#define ENVELOPE_SUBSONGS
#include "Envelope.c"
