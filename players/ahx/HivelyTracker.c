/* HivelyTracker: kelva's player for HivelyTracker (HVL) songs; it plays AHX
 * songs as well (see ahx.h). */
#include "ahx.h"

const char ahx_player_name[] = "HivelyTracker";
const char ahx_player_creator[] = "kelva: AHX and HivelyTracker replay";
