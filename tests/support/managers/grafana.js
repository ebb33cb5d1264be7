// What a panel of a Grafana dashboard makes of its queries' answers, by Grafana's own library.
//
// Reads {"frames": [...], "transformations": [...]} from its input, and prints the tables: each a list of rows, each row an
// object of values by the columns' titles.                        (NODE_PATH: where the package is)
"use strict";

global.window = {}; // the library is made for browsers

const fs = require("fs");
const { firstValueFrom } = require("rxjs");
const { standardTransformers, standardTransformersRegistry, toDataFrame, transformDataFrame } = require("@grafana/data");

function register() {
    const byId = new Map(Object.values(standardTransformers).map((each) => [each.id, each])); // some have two names
    const entries = [...byId.values()].map((each) => ({ id: each.id, name: each.name, transformation: each }));
    standardTransformersRegistry.setInit(() => entries);
}

function rowsOf(frame) {
    const cell = (field, row) => [field.config.displayName || field.name, field.values[row] ?? null];
    return Array.from({ length: frame.length }, (_, row) => Object.fromEntries(frame.fields.map((field) => cell(field, row))));
}

async function main() {
    register();
    const { frames, transformations } = JSON.parse(fs.readFileSync(0));
    const made = await firstValueFrom(transformDataFrame(transformations, frames.map((frame) => toDataFrame(frame))));
    console.log(JSON.stringify(made.map(rowsOf)));
}

main();
