// Structures in and out of a call: TARN_FIELDS makes each one a table, field by field. Needs the
// service of calculator.cpp.
#include <tarn/ext/app.h>
#include <tarn/ext/fields.h>

#include <iostream>

struct operands {
    int a;
    int b;
};
TARN_FIELDS(operands, a, b)

struct quotient {
    int whole;
    int rest;
};
TARN_FIELDS(quotient, whole, rest)

int main() {
    tarn::ext::app app;
    // The parameter of the handler says what is read from the reply. A failure of the call, or a
    // reply that is no quotient, is printed and makes run() return 1.
    app.call("calculator", "divide", operands{7, 2}, [](const quotient& answer) {
        std::cout << "7 / 2 = " << answer.whole << ", rest " << answer.rest << std::endl;
    });
    return app.run();
}
