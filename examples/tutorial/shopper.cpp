// Puts three bags of rice into the pantry and prints how many are there now.
#include "stock.h"

#include <tarn/ext/app.h>

#include <iostream>

int main() {
    tarn::ext::app app;
    app.call("pantry", "put", stock{"rice", 3},
             [](const stock& now) { std::cout << now.item << ": " << now.count << '\n'; });
    return app.run();
}
