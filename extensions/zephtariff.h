/* The functions of the system library zephtariff: what carriers ask for a parcel. A library that
   uses it includes this header, asks the engine for the library and for each function by its name,
   and casts the results to the types here. docs/extensions/zephtariff.md has an example. */

#ifndef ZEPH_EXTENSIONS_ZEPHTARIFF_H
#define ZEPH_EXTENSIONS_ZEPHTARIFF_H

/* "tariff_services": the number of services. They are numbered from 0, the cheapest first. */
typedef int (*tariff_services_function)(void);
/* "tariff_name": the name of a service; null for a number that is none. Constant. */
typedef const char* (*tariff_name_function)(int service);
/* "tariff_price": what the service asks for a parcel, in cents; -1 if it does not carry it. Grams
   are from 1, zones from 1 to 4. */
typedef int (*tariff_price_function)(int service, int grams, int zone);

#endif
