#pragma once

#include "orvane/orvane.h"
#include "orvane/receipt.hpp"

namespace orvane::c {

// Throws if a receipt has no size; `to` may be null.
void requireSize(const orvane_receipt* to);

// Fills in what the program knows of a receipt; `to` may be null.
void copyReceipt(const Receipt& from, orvane_receipt* to) noexcept;

}  // namespace orvane::c
