/* AHX: kelva's player for AHX (THX) songs; it plays HivelyTracker songs as
 * well (see ahx.h). */
#include "ahx.h"

const char ahx_player_name[] = "AHX";
const char ahx_player_creator[] = "kelva: AHX and HivelyTracker replay";
