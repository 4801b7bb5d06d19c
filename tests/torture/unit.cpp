// SPDX-License-Identifier: MIT
#include "tests/torture/unit.h"

#include <algorithm>

#include "tests/support/handle.h"

namespace {

constexpr const char* kNames[] = {"zel0", "mivo0", "ricoh", "zel5", "mivo1",
                                  "zel1", "zel2",  "zel3",  "zel4"};
constexpr size_t kPlacesCount = std::size(kNames);

// The library's callback knows no unit: each has one of its own.
std::atomic<uint32_t> noticed[kPlacesCount];

template <size_t kPlace>
void Notice()
{
    noticed[kPlace]++;
}

template <size_t... kPlace>
CardEjectCallback NoticeOf(size_t place, std::index_sequence<kPlace...>)
{
    static constexpr CardEjectCallback kAll[] = {Notice<kPlace>...};
    return kAll[place];
}

Place PlaceOf(const std::string& name)
{
    const char unit = name.back();
    if (name.starts_with("zel")) {
        return {name,
                std::string("/dev/spd") + static_cast<char>('a' + (unit - '0')),
                DEV_TYPE_ZEL,
                {0x2000700D, 0x2000700C, 0x20007018, 0x2000702A, 0x2000701D, 0x2000701E}};
    }
    if (name.starts_with("mivo")) {
        return {name,
                std::string("/dev/mivosdif") + unit,
                DEV_TYPE_MIVO,
                {0xC010D324, 0x8010D325, 0x8010D32E, 0x800CD326, 0x800CD32A, 0x8008D32B}};
    }
    return {name, "/dev/sdcarda", DEV_TYPE_RICOH_SD, {}};
}

Bytes StampedCard()
{
    Bytes card(size_t{kCardSectors} * 512, 0x5A);
    for (uint32_t i = 0; i < kCardSectors; i++) {
        const Stamp stamp = {{'S', 'E', 'C', 'T'}, 0, 0, i};
        memcpy(&card[size_t{i} * 512], &stamp, sizeof stamp);
    }
    return card;
}

}  // namespace

const std::vector<Place>& Places()
{
    static const std::vector<Place> places = [] {
        std::vector<Place> all;
        for (const char* name : kNames) {
            all.push_back(PlaceOf(name));
        }
        return all;
    }();
    return places;
}

Unit::Unit(const Options& given, size_t place_number, Bench& its_bench, Counts& total)
    : place(Places().at(place_number)),
      options(given),
      bench(its_bench),
      counts(total),
      shadow(StampedCard()),
      random({given.seed, static_cast<uint32_t>(place_number)}),
      number_(place_number)
{
    bench.Insert(place.name, StampedCard());
}

Unit::~Unit()
{
    Close();
}

void Unit::Close()
{
    if (is_open_) {
        DevExit(&handle);
    }
    is_open_ = false;
}

uint32_t Unit::Noticed() const
{
    return noticed[number_];
}

void Unit::Open(bool protect)
{
    Close();
    if (!bench.HasCard(place.name)) {
        Reinsert();
    }
    bench.Protect(place.name, protect);
    handle = HandleFor(place.node);
    if (DevDetect(&handle) != 0 || DevInit(&handle) < 0) {
        throw Violation("a card that is in could not be opened");
    }
    is_open_ = true;
    is_protected = protect;
    latched = false;
    disturbed = false;
    is_watched = false;
    are_registers_good = true;
    noticed_at_open = Noticed();
    // Otherwise the library never looks whether the card is there.
    if (!random.OneIn(4)) {
        const CardEjectCallback callback =
            NoticeOf(number_, std::make_index_sequence<kPlacesCount>());
        if (CARD_Init(&handle, 0, callback) != 0) {
            throw Violation("the callback was not taken");
        }
        is_watched = HasDirect();
    }
    counts.inits++;
}

void Unit::CompareAll()
{
    const Bytes found = bench.HasCard(place.name) ? bench.OnCard(place.name, 0, kCardSectors)
                                                  : bench.OnPulledCard(place.name, 0, kCardSectors);
    const std::optional<std::string> wrong = shadow.Found(0, found.data(), kCardSectors);
    counts.sectors_compared += kCardSectors;
    if (wrong) {
        throw Violation("on the whole card: " + *wrong);
    }
}

void Unit::Eject()
{
    // What the kernel has not written by then would be lost, as with any card.
    bench.ForgetCaches(place.name);
    bench.Eject(place.name);
    card_is_in = false;
    disturbed = true;
    counts.ejects++;
}

void Unit::Reinsert()
{
    CompareAll();
    bench.Insert(place.name, bench.OnPulledCard(place.name, 0, kCardSectors));
    bench.Protect(place.name, is_protected);
    card_is_in = true;
}
