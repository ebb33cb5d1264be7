// Walks a subtree with the npm package net-snmp, and prints what it found as one JSON list of [OID, type, value].
//
// Usage: node walk.js PORT ROOT getnext|getbulk      (NODE_PATH: where the package is)
// Types are BER tags. Values: numbers as decimal text, texts as hexadecimal bytes, addresses as they are shown.
"use strict";

const snmp = require("net-snmp");

const REPETITIONS = 20;
const [port, root, method] = process.argv.slice(2);

const session = snmp.createSession("127.0.0.1", "public", {
    port: Number(port),
    version: snmp.Version2c,
    retries: 0,
    timeout: 5000,
});

function shown(varbind) {
    if (varbind.type === snmp.ObjectType.OctetString) {
        return varbind.value.toString("hex");
    }
    if (varbind.type === snmp.ObjectType.Counter64) {
        return BigInt("0x" + varbind.value.toString("hex")).toString();
    }
    return String(varbind.value);
}

function ask(oid) {
    return new Promise((resolve, reject) => {
        const answered = (error, varbinds) => (error ? reject(error) : resolve(varbinds));
        if (method === "getbulk") {
            session.getBulk([oid], 0, REPETITIONS, (error, columns) => answered(error, columns && columns[0]));
        } else {
            session.getNext([oid], answered);
        }
    });
}

async function walk() {
    const found = [];
    for (let last = root; ; last = found[found.length - 1][0]) {
        for (const varbind of await ask(last)) {
            if (snmp.isVarbindError(varbind) || !varbind.oid.startsWith(root + ".")) {
                return found;
            }
            found.push([varbind.oid, varbind.type, shown(varbind)]);
        }
    }
}

walk()
    .then((found) => console.log(JSON.stringify(found)))
    .catch((error) => {
        console.error(`walk.js: ${error.message}`);
        process.exitCode = 1;
    })
    .finally(() => session.close());
