// SPDX-License-Identifier: MIT
// Builds bus request frames the way a device written in JavaScript does, with a common
// MessagePack encoder, and prints them one a line as "<name> <hex>". JavaScript numbers
// are doubles, and the encoder writes a whole-number one as a MessagePack integer.
//   node frames.js        (NODE_PATH must hold @msgpack/msgpack)
"use strict";
const { encode } = require("@msgpack/msgpack");

const VT_I4 = 3, VT_R4 = 4, VT_R8 = 5, VT_DATE = 7, VT_BSTR = 8;
const VT_ARRAY = 0x2000, VT_VARIANT = 12;

const request = (caller, value) => [1, 0, caller, value];

const frames = {
    "date-whole": request("Puck", [VT_DATE, 46348.0]),
    "date-fraction": request("Puck", [VT_DATE, 46348.5]),
    "r8-negative-whole": request("Puck", [VT_R8, -3.0]),
    "r4-whole": request("Puck", [VT_R4, 16777216.0]),
    "r4-inexact": request("Puck", [VT_R4, 16777217.0]),
    "r8-array-mixed": request("Puck", [VT_ARRAY | VT_R8, [1.0, 2.5, -7.0]]),
    "set-log-source": request("Puck", [VT_ARRAY | VT_VARIANT, [
        [VT_BSTR, "00:11:22:33:44:55"], [VT_BSTR, "puck-7"], [VT_BSTR, "Living room"],
        [VT_DATE, 46348.0], [VT_ARRAY | VT_BSTR, ["system.log"]]]]),
    "i4": request("Puck", [VT_I4, 7]),
};

for (const [name, frame] of Object.entries(frames)) {
    process.stdout.write(name + " " + Buffer.from(encode(frame)).toString("hex") + "\n");
}
