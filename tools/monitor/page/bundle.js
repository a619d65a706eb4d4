// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// bundle.js MODULES OUTPUT: the page of the sources beside this file, with the npm packages in the folder MODULES.
import { appendFileSync, copyFileSync, readdirSync, readFileSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import { join } from "node:path";
import { fileURLToPath } from "node:url";

const [modules, output] = process.argv.slice(2);
const here = fileURLToPath(new URL(".", import.meta.url));
const { buildSync } = createRequire(join(modules, "/"))("esbuild");

const { metafile } = buildSync({
    absWorkingDir: here,
    entryPoints: [
        { in: "src/main.js", out: "page" },
        { in: "page.css", out: "page" },
    ],
    outdir: output,
    nodePaths: [modules],
    bundle: true,
    minify: true,
    format: "esm",
    target: ["chrome111", "firefox115", "safari16.4"],
    charset: "utf8",
    legalComments: "none", // whole licences are added below
    metafile: true,
    logLevel: "warning",
});

const packageOf = (path) => /(?:^|\/)node_modules\/((?:@[^/]+\/)?[^/]+)\//.exec(path)?.[1];

/** What was put into a file: the packages that some of its bytes are from. */
function packagesIn({ inputs }) {
    const paths = Object.keys(inputs).filter((path) => inputs[path].bytesInOutput > 0);
    return new Set(paths.map(packageOf).filter(Boolean));
}

function licenceText(name) {
    const file = readdirSync(join(modules, name)).find((entry) => /^licen[cs]e/i.test(entry));
    return readFileSync(join(modules, name, file), "utf8").trim();
}

const materials = new Map();
for (const file of ["page.js", "page.css"]) {
    const path = Object.keys(metafile.outputs).find((made) => made.endsWith(`/${file}`));
    for (const name of packagesIn(metafile.outputs[path])) {
        const { version, license } = JSON.parse(readFileSync(join(modules, name, "package.json"), "utf8"));
        materials.set(name, { name, version, license });
        appendFileSync(join(output, file), `/*\n${name} ${version}\n\n${licenceText(name)}\n*/\n`);
    }
}
const listed = [...materials.values()].sort((a, b) => (a.name < b.name ? -1 : 1));
writeFileSync(join(output, "materials.json"), `${JSON.stringify(listed, null, 2)}\n`);
for (const file of ["index.html", "icon.svg"]) {
    copyFileSync(join(here, file), join(output, file));
}
