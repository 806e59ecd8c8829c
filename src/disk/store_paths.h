// Where the store's files lie, as the original platform names them; a
// backend of the platform layer decides where such a path lies here.
#pragma once

namespace molra {

constexpr char kHomeDir[] = "C:\\FSDIR";                   // made on demand
constexpr char kCatalogPath[] = "C:\\FSDIR\\MOLRA.CFT";
constexpr char kStatusLogPath[] = "c:\\FSDIR\\status.dat";
constexpr char kDefectLogPath[] = "c:\\FSDIR\\defected.dat";
constexpr char kQuickSearchDir[] = "C:\\FSDIR\\QS";        // one day file per UTC day
constexpr char kZoneBiasPath[] = "c:\\fsdir\\tz.inf";
constexpr char kBasketDirFormat[] = "%c:\\MOLRA";          // of a drive letter

}  // namespace molra
