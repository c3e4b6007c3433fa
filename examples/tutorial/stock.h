/// What the programs of the tutorial send each other: how many of an item there are.
#pragma once

#include <tarn/ext/fields.h>

#include <string>

struct stock {
    std::string item;
    int count;
};
TARN_FIELDS(stock, item, count)
