// Restrictions (SRestriction) evaluated against the rows of a table, and the ordering of property values
// that restrictions and sorting share.
#pragma once

#include <compare>
#include <cstddef>

#include "mapi/runtime/TableRows.h"
#include "mapidefs.h"

namespace velmar::mapi {

// Evaluation recurses once per level, so nesting is bounded; the node count is bounded too, because a
// restriction whose children share sub-trees would otherwise take exponential time to walk.
inline constexpr unsigned kMaxRestrictionDepth = 64;
inline constexpr size_t kMaxRestrictionNodes = size_t{1} << 20;

// S_OK for a restriction MatchesRestriction can evaluate: RES_AND, RES_OR, RES_NOT, RES_EXIST, RES_PROPERTY
// (RELOP_LT..RELOP_NE on PT_LONG, PT_I8, PT_BOOLEAN, PT_DOUBLE, PT_SYSTIME, PT_STRING8, PT_UNICODE,
// PT_BINARY) and RES_CONTENT (full string, substring or prefix on strings and binaries). MAPI_E_TOO_COMPLEX
// for any other kind, relop, type or fuzzy level, and for restrictions beyond the limits above;
// MAPI_E_INVALID_PARAMETER for a null restriction or a null pointer inside one.
[[nodiscard]] HRESULT ValidateRestriction(const SRestriction* restriction);

// Whether row of rows satisfies restriction, which ValidateRestriction accepted. A row without the property
// a RES_PROPERTY or RES_CONTENT names never matches, whatever the relop. Strings compare by code point,
// case-sensitively unless a content restriction asks for FL_IGNORECASE. May throw std::bad_alloc.
bool MatchesRestriction(const SRestriction& restriction, const ITableRows& rows, size_t row);

// Orders two property values: numbers and times by value (doubles in IEEE total order), booleans false
// first, strings by code point, binaries by bytes and then length. Values of different types order by type,
// so this is a total order usable for sorting.
std::weak_ordering CompareProps(const SPropValue& left, const SPropValue& right);

}  // namespace velmar::mapi
