// Sets the policy from the file that the command line names, if it names one. Then prints the hash
// of the policy in force, now and after each change, even if the service or the bus restarts.
// Needs the npm package dbus-next.
const dbus = require("dbus-next"), fs = require("fs"), files = process.argv.slice(2);
const NAMES = ["com.norvane.qor.IControl", "/com/norvane/qor/CommunicationChannel"];

async function follow(bus) {
  const service = (await bus.getProxyObject(...NAMES)).getInterface("com.norvane.qor.Policy1");
  service.on("PolicyChanged", () => {}); // asks the bus for it; is not called for a restarted service
  bus.on("message", ({ member, body }) => member === "PolicyChanged" && console.log("in force:", body[0]));
  while (files.length) await service.SetPolicy(fs.readFileSync(files.pop(), "utf8"), {});
  const [last] = (await service.ListPolicies()).slice(-1);
  console.log("in force:", last ? last.sha256.value : "none");
}

(function start() {
  const bus = dbus.systemBus().on("error", (error) => console.log(error.message));
  bus._connection.stream.on("close", () => setTimeout(start, 1000));
  follow(bus).catch((error) => bus.disconnect(console.log(`${error.type}: ${error.message}`)));
})();
