/// Message values: the dynamic value, its encoder and its readers, for every user of the library.
#pragma once

#include "tarn/blob/attr.h"
#include "tarn/blob/buf.h"
#include "tarn/blob/readers.h"
