// The smaller and the larger of two numbers of one type.
#pragma once

template <class Number>
constexpr Number qfu_smaller(Number a, Number b) {
    return b < a ? b : a;
}

template <class Number>
constexpr Number qfu_larger(Number a, Number b) {
    return a < b ? b : a;
}
