/// TARN_EXT_FOR_EACH: expands a macro for each of up to 64 arguments, for TARN_FIELDS.
#pragma once

/// f(x, a), f(x, b), ... for the arguments a, b, ... after x; at least one and at most 64 of them.
#define TARN_EXT_FOR_EACH(f, x, ...)                                                               \
    TARN_EXT_FOR_EACH_CHOICE(                                                                      \
        __VA_ARGS__, TARN_EXT_FOR_EACH_64, TARN_EXT_FOR_EACH_63, TARN_EXT_FOR_EACH_62,             \
        TARN_EXT_FOR_EACH_61, TARN_EXT_FOR_EACH_60, TARN_EXT_FOR_EACH_59, TARN_EXT_FOR_EACH_58,    \
        TARN_EXT_FOR_EACH_57, TARN_EXT_FOR_EACH_56, TARN_EXT_FOR_EACH_55, TARN_EXT_FOR_EACH_54,    \
        TARN_EXT_FOR_EACH_53, TARN_EXT_FOR_EACH_52, TARN_EXT_FOR_EACH_51, TARN_EXT_FOR_EACH_50,    \
        TARN_EXT_FOR_EACH_49, TARN_EXT_FOR_EACH_48, TARN_EXT_FOR_EACH_47, TARN_EXT_FOR_EACH_46,    \
        TARN_EXT_FOR_EACH_45, TARN_EXT_FOR_EACH_44, TARN_EXT_FOR_EACH_43, TARN_EXT_FOR_EACH_42,    \
        TARN_EXT_FOR_EACH_41, TARN_EXT_FOR_EACH_40, TARN_EXT_FOR_EACH_39, TARN_EXT_FOR_EACH_38,    \
        TARN_EXT_FOR_EACH_37, TARN_EXT_FOR_EACH_36, TARN_EXT_FOR_EACH_35, TARN_EXT_FOR_EACH_34,    \
        TARN_EXT_FOR_EACH_33, TARN_EXT_FOR_EACH_32, TARN_EXT_FOR_EACH_31, TARN_EXT_FOR_EACH_30,    \
        TARN_EXT_FOR_EACH_29, TARN_EXT_FOR_EACH_28, TARN_EXT_FOR_EACH_27, TARN_EXT_FOR_EACH_26,    \
        TARN_EXT_FOR_EACH_25, TARN_EXT_FOR_EACH_24, TARN_EXT_FOR_EACH_23, TARN_EXT_FOR_EACH_22,    \
        TARN_EXT_FOR_EACH_21, TARN_EXT_FOR_EACH_20, TARN_EXT_FOR_EACH_19, TARN_EXT_FOR_EACH_18,    \
        TARN_EXT_FOR_EACH_17, TARN_EXT_FOR_EACH_16, TARN_EXT_FOR_EACH_15, TARN_EXT_FOR_EACH_14,    \
        TARN_EXT_FOR_EACH_13, TARN_EXT_FOR_EACH_12, TARN_EXT_FOR_EACH_11, TARN_EXT_FOR_EACH_10,    \
        TARN_EXT_FOR_EACH_9, TARN_EXT_FOR_EACH_8, TARN_EXT_FOR_EACH_7, TARN_EXT_FOR_EACH_6,        \
        TARN_EXT_FOR_EACH_5, TARN_EXT_FOR_EACH_4, TARN_EXT_FOR_EACH_3, TARN_EXT_FOR_EACH_2,        \
        TARN_EXT_FOR_EACH_1, none)                                                                 \
    (f, x, __VA_ARGS__)

/// The macro for the number of arguments given: they push its name to the 65th place.
#define TARN_EXT_FOR_EACH_CHOICE(a1, a2, a3, a4, a5, a6, a7, a8, a9, a10, a11, a12, a13, a14, a15, \
                                 a16, a17, a18, a19, a20, a21, a22, a23, a24, a25, a26, a27, a28,  \
                                 a29, a30, a31, a32, a33, a34, a35, a36, a37, a38, a39, a40, a41,  \
                                 a42, a43, a44, a45, a46, a47, a48, a49, a50, a51, a52, a53, a54,  \
                                 a55, a56, a57, a58, a59, a60, a61, a62, a63, a64, chosen, ...)    \
    chosen

#define TARN_EXT_FOR_EACH_1(f, x, a) f(x, a)
#define TARN_EXT_FOR_EACH_2(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_1(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_3(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_2(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_4(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_3(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_5(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_4(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_6(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_5(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_7(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_6(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_8(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_7(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_9(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_8(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_10(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_9(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_11(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_10(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_12(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_11(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_13(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_12(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_14(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_13(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_15(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_14(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_16(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_15(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_17(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_16(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_18(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_17(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_19(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_18(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_20(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_19(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_21(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_20(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_22(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_21(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_23(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_22(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_24(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_23(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_25(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_24(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_26(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_25(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_27(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_26(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_28(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_27(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_29(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_28(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_30(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_29(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_31(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_30(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_32(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_31(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_33(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_32(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_34(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_33(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_35(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_34(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_36(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_35(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_37(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_36(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_38(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_37(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_39(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_38(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_40(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_39(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_41(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_40(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_42(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_41(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_43(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_42(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_44(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_43(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_45(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_44(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_46(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_45(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_47(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_46(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_48(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_47(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_49(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_48(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_50(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_49(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_51(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_50(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_52(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_51(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_53(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_52(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_54(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_53(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_55(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_54(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_56(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_55(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_57(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_56(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_58(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_57(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_59(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_58(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_60(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_59(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_61(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_60(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_62(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_61(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_63(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_62(f, x, __VA_ARGS__)
#define TARN_EXT_FOR_EACH_64(f, x, a, ...) f(x, a), TARN_EXT_FOR_EACH_63(f, x, __VA_ARGS__)
