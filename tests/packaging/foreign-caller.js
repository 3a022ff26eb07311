// Reads calls, a line of JSON each, and writes for each the name of its error, or an empty line.
const { Message, Variant, systemBus } = require("dbus-next");

const revive = (_, value) => {
  if (value !== null && typeof value === "object") {
    if ("big" in value) return BigInt(value.big);
    if ("signature" in value && "value" in value) return new Variant(value.signature, value.value);
  }
  return value;
};

(async () => {
  const bus = systemBus();
  for await (const line of require("readline").createInterface({ input: process.stdin })) {
    let name = "";
    try {
      await bus.call(new Message(JSON.parse(line, revive)));
    } catch (error) {
      name = error.type || `not sent: ${error.message}`;
    }
    console.log(name);
  }
  bus.disconnect();
})();
