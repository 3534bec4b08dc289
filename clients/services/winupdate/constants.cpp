#include "constants.h"

ProductConstantsTable ProductConstants = {
    "Korvanta Cloud",
    "Cloud",
    "Global\\com.korvanta.updateservice.msipush",
    "Korvanta",
    "https://cloud.korvanta.example",
};
