/* EnvelopeSongEnd: the Envelope test player with the song-end flag set. */
#define ENVELOPE_SIGNALS_END
#define ENVELOPE_NAME "EnvelopeSongEnd"
#include "Envelope.c"
