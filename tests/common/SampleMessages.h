#pragma once

// A flash record as "gnxctl flash read --format jsonl" writes it.
inline const char* const kFlashLine =
    R"({"band":0,"direction":104,"extraCode":0,"flagBit0":true,"flagBit1":true,"flagBit2":false,)"
    R"("frequency":401668827,"gnxDirection":249,"gnxLatitude":43.59,"gnxLongitude":1.23,"level":-120,)"
    R"("mjd":61367,"origin":"flash","payload":"A43AB0525B2EAEA5","payloadLatitude":null,)"
    R"("payloadLongitude":null,"period":0,"platform":"2308281","platformId":"2308281","platformIndex":-1,)"
    R"("secondsOfDay":81530,"time":"2026-11-23T22:38:50.000Z","v1FlashValue":0})";
