// The fixed parts of the identification targets: a configuration in the
// style of the shipped one, the players it names (so that every content
// check may propose its player), and the module names the targets try.
#pragma once

namespace fuzz {

inline const char kFixedConf[] =
    "# fixed configuration of the identification fuzz targets\n"
    "PTK-Prowiz prefixes=mod,mod15,m15,st,nst,stk,ptk epopt=type:pt30\n"
    "UltimateSoundtracker prefixes=ust,mod15 epopt=type:st20\n"
    "Soundtracker-IV prefixes=st4\n"
    "AudioSculpture prefixes=adsc,as\n"
    "TFMX prefixes=mdat,tfx,tfm\n"
    "TFMX-Pro prefixes=tfmxpro\n"
    "MED prefixes=med,mmd0,mmd1 epopt=unused\n"
    "  indented prefixes=never\n"
    "NoFile prefixes=nofile\n";

// Players present in players/ (NoFile is configured but absent).
inline const char *const kFixedPlayers[] = {
    "PTK-Prowiz", "UltimateSoundtracker", "Soundtracker-IV", "AudioSculpture", "TFMX", "TFMX-Pro",
    "TFMX-7V", "TFMX-TFHD", "TFMX-Pro-TFHD", "TFMX-7V-TFHD", "MED", "A", "B", nullptr};

// Module names: extension and prefix forms, upper case, URIs and names that
// match nothing.
inline const char *const kModuleNames[] = {
    "x.mod", "mod.x", "/music/Tune.MOD", "file:///music/a%20b.mod", "mdat.song", "song.tfx",
    "a.st4", "b.m15", "c.mmd0", "unknown.xyz", ".mod", "mod.", "", "dir/", "x.tfmxpro", "x.adsc"};
constexpr unsigned kModuleNameCount = sizeof kModuleNames / sizeof kModuleNames[0];

}  // namespace fuzz
