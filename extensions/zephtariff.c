/* zephtariff: a system library. It has nothing for scripts; other libraries ask for its functions,
   as zephshipping does. Nothing in it changes, so any thread may call it at any time. */

#include "extensions/zephtariff.h"

#include <stddef.h>

#define EXPORT __attribute__((visibility("default")))

enum { zones = 4 };

/* What a service carries, and its prices: a base for each zone, and for each further kilogram. 0 is
   a zone that it does not serve. */
static const struct Service {
  const char* name;
  int most_grams;
  int base[zones];
  int kilogram[zones];
} services[] = {
    {"letter", 500, {180, 320, 480, 480}, {0, 0, 0, 0}},
    {"parcel", 20000, {490, 990, 1490, 2190}, {60, 150, 290, 640}},
    {"courier", 30000, {1290, 2490, 4990, 0}, {90, 190, 390, 0}},
};
enum { count = sizeof services / sizeof *services };

EXPORT int tariff_services(void);
EXPORT const char* tariff_name(int service);
EXPORT int tariff_price(int service, int grams, int zone);

int tariff_services(void) {
  return count;
}

const char* tariff_name(int service) {
  return service >= 0 && service < count ? services[service].name : NULL;
}

int tariff_price(int service, int grams, int zone) {
  if (service < 0 || service >= count || zone < 1 || zone > zones) return -1;
  const struct Service* asked = &services[service];
  if (grams < 1 || grams > asked->most_grams || asked->base[zone - 1] == 0) return -1;
  return asked->base[zone - 1] + (grams - 1) / 1000 * asked->kilogram[zone - 1];
}
