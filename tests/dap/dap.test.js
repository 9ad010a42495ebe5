// tavit -dap driven by an independent client (DebugClient of the Debug
// Adapter Protocol's own test support), with the same scenarios on the
// simulator and on QEMU through the GDB back end.
'use strict';
const assert = require('assert');
const fs = require('fs');
const os = require('os');
const path = require('path');
const { DebugClient } = require('@vscode/debugadapter-testsupport');
const rig = require('./rig');
const cp = require('child_process');

for (const backend of rig.BACKENDS) {
  describe(`tavit -dap on the ${backend.name}`, function () {
    this.timeout(60000);
    let dc;
    let host;

    before(function () { if (backend.needsQemu && !rig.haveQemu()) this.skip(); });
    beforeEach(async () => {
      host = await backend.start();
      dc = new DebugClient(rig.TAVIT, '-dap', 'tavit', { env: process.env }, !!process.env.DAP_STDERR);
      dc.defaultTimeout = 20000;
      await dc.start();
      if (process.env.DAP_LOG) dc.on('output', (e) => process.stdout.write(`    | ${e.body.output}`));
    });
    afterEach(async () => {
      await dc.stop().catch(() => {});
      backend.stop();
    });

    // Launch, set breakpoints after the initialized event, and wait for the
    // stop at main.
    async function launchToMain(lines, extra) {
      const stopped = dc.waitForEvent('stopped');
      await dc.initializeRequest();
      const initialized = dc.waitForEvent('initialized');
      await dc.launchRequest(rig.launchArgs(backend, Object.assign({}, host, extra)));
      await initialized;
      if (lines) await dc.setBreakpointsRequest({ source: { path: rig.SOURCE }, breakpoints: lines });
      await dc.configurationDoneRequest();
      return stopped;
    }
    async function topFrame() {
      const st = await dc.stackTraceRequest({ threadId: 1 });
      return st.body.stackFrames[0];
    }
    async function resumeTo(request, args) {
      const stopped = dc.waitForEvent('stopped');
      await request(Object.assign({ threadId: 1 }, args));
      return stopped;
    }
    async function repl(expression) {
      const r = await dc.evaluateRequest({ expression, context: 'repl' });
      return r.body.result;
    }

    it('launches and stops at main, then hits a source breakpoint', async () => {
      const bp = rig.markerLine('call-area');
      const ev = await launchToMain([{ line: bp }]);
      assert.strictEqual(ev.body.reason, 'entry');
      const f0 = await topFrame();
      assert.strictEqual(f0.name, 'main');
      const pc = parseInt(f0.instructionPointerReference, 16);
      assert.ok(pc >= rig.nm('main') && pc < rig.nm('main') + 16, f0.instructionPointerReference);
      assert.strictEqual(path.basename(f0.source.path), 'dapdemo.c');
      const hit = await resumeTo((a) => dc.continueRequest(a));
      assert.strictEqual(hit.body.reason, 'breakpoint');
      assert.strictEqual((await topFrame()).line, bp);
    });

    it('stack frames equal the exported call stack at the same stop', async () => {
      await launchToMain([{ line: rig.markerLine('area-first') }]);
      await resumeTo((a) => dc.continueRequest(a));
      const frames = (await dc.stackTraceRequest({ threadId: 1 })).body.stackFrames;
      const file = path.join(fs.mkdtempSync(path.join(os.tmpdir(), 'dap-')), 'stack.txt');
      await repl(`Window.Export("Call Stack", "${file}")`);
      const rows = fs.readFileSync(file, 'utf8').split('\n').slice(1).filter((l) => l.trim() && l.includes('\t'));
      const names = rows.map((r) => r.split('\t')[0].trim()).filter((n) => n);
      assert.deepStrictEqual(frames.map((f) => f.name), names.slice(0, frames.length));
      assert.deepStrictEqual(frames.slice(0, 2).map((f) => f.name), ['Area', 'main']);
      for (const f of frames) assert.match(f.instructionPointerReference, /^0x[0-9a-f]{8}$/);
    });

    it('shows a struct local with its nested member, evaluates and sets values', async () => {
      await launchToMain([{ line: rig.markerLine('call-area') }]);
      await resumeTo((a) => dc.continueRequest(a));
      const frame = await topFrame();
      const scopes = (await dc.scopesRequest({ frameId: frame.id })).body.scopes;
      assert.deepStrictEqual(scopes.map((s) => s.name), ['Locals', 'Registers', 'Globals']);
      const globals = (await dc.variablesRequest({ variablesReference: scopes[2].variablesReference })).body.variables;
      const wide = globals.find((v) => v.name === 'g_wide');
      assert.ok(wide && parseInt(wide.memoryReference, 16) === rig.nm('g_wide'), JSON.stringify(globals));
      const wideMembers = (await dc.variablesRequest({ variablesReference: wide.variablesReference })).body.variables;
      assert.strictEqual(wideMembers.length, 100);
      const regs = (await dc.variablesRequest({ variablesReference: scopes[1].variablesReference })).body.variables;
      assert.strictEqual(parseInt(regs.find((v) => v.name === 'PC').value, 16), parseInt(frame.instructionPointerReference, 16));
      const locals = (await dc.variablesRequest({ variablesReference: scopes[0].variablesReference })).body.variables;
      const shape = locals.find((v) => v.name === 'shape');
      assert.ok(shape && shape.variablesReference > 0, JSON.stringify(locals));
      const members = (await dc.variablesRequest({ variablesReference: shape.variablesReference })).body.variables;
      assert.deepStrictEqual(members.map((m) => m.name), ['id', 'origin', 'size']);
      const size = members.find((m) => m.name === 'size');
      const xy = (await dc.variablesRequest({ variablesReference: size.variablesReference })).body.variables;
      assert.deepStrictEqual(xy.map((m) => [m.name, parseInt(m.value)]), [['x', 3], ['y', 4]]);
      // Evaluate agrees with the target's memory through the console command.
      const ev = await dc.evaluateRequest({ expression: 'shape.id * 10 + g_wide.m2 - g_wide.m0', context: 'watch', frameId: frame.id });
      assert.strictEqual(parseInt(ev.body.result), 72);
      const counter = await dc.evaluateRequest({ expression: 'g_counter', context: 'hover' });
      assert.match(await repl(`Target.ReadU32(0x${rig.nm('g_counter').toString(16)})`), new RegExp(`^${parseInt(counter.body.result)} `));
      // setVariable writes the nested member through the target.
      await dc.setVariableRequest({ variablesReference: size.variablesReference, name: 'y', value: '9' });
      const addr = parseInt(xy[1].memoryReference, 16);
      assert.match(await repl(`Target.ReadU32(0x${addr.toString(16)})`), /^9 /);
      const bad = await dc.evaluateRequest({ expression: 'no_such_symbol + 1', context: 'watch' }).catch((e) => e);
      assert.ok(bad instanceof Error && /expression/i.test(bad.message), String(bad));
    });

    it('steps over, into and out of a call, by statement and by instruction', async () => {
      await launchToMain([{ line: rig.markerLine('call-area') }]);
      await resumeTo((a) => dc.continueRequest(a));
      assert.strictEqual((await resumeTo((a) => dc.stepInRequest(a))).body.reason, 'step');
      let f = await topFrame();
      assert.strictEqual(f.name, 'Area');
      // The step into ends on the function's first line, its opening brace
      // in this unoptimised build.
      assert.strictEqual(f.line, rig.markerLine('area-first') - 1);
      await resumeTo((a) => dc.nextRequest(a));
      assert.strictEqual((await topFrame()).line, rig.markerLine('area-first'));
      const pc = parseInt((await topFrame()).instructionPointerReference, 16);
      await resumeTo((a) => dc.nextRequest(a), { granularity: 'instruction' });
      const pc2 = parseInt((await topFrame()).instructionPointerReference, 16);
      assert.ok(pc2 === pc + 2 || pc2 === pc + 4, `${pc.toString(16)} -> ${pc2.toString(16)}`);
      await resumeTo((a) => dc.stepOutRequest(a));
      f = await topFrame();
      assert.strictEqual(f.name, 'main');
      assert.strictEqual(f.line, rig.markerLine('call-area'));
    });

    it('stops at a conditional breakpoint only when its condition holds', async () => {
      await launchToMain([{ line: rig.markerLine('watched'), condition: 'g_counter == 3' }]);
      await resumeTo((a) => dc.continueRequest(a));
      assert.strictEqual((await topFrame()).line, rig.markerLine('watched'));
      assert.strictEqual(parseInt((await dc.evaluateRequest({ expression: 'g_counter', context: 'watch' })).body.result), 3);
    });

    it('stops at a data breakpoint after the write', async () => {
      await launchToMain();
      const info = await dc.dataBreakpointInfoRequest({ name: 'g_watched' });
      assert.strictEqual(info.body.dataId, 'g_watched');
      const set = await dc.setDataBreakpointsRequest({ breakpoints: [{ dataId: info.body.dataId, accessType: 'write' }] });
      assert.deepStrictEqual(set.body.breakpoints.map((b) => b.verified), [true]);
      const ev = await resumeTo((a) => dc.continueRequest(a));
      assert.strictEqual(ev.body.reason, 'data breakpoint');
      const line = (await topFrame()).line;
      assert.ok(line === rig.markerLine('watched') || line === rig.markerLine('after-watched'), `line ${line}`);
    });

    it('disassembles around the PC and reads memory as Target.ReadU32 does', async () => {
      await launchToMain([{ line: rig.markerLine('call-area') }]);
      await resumeTo((a) => dc.continueRequest(a));
      const pc = (await topFrame()).instructionPointerReference;
      const dis = await dc.disassembleRequest({ memoryReference: pc, instructionOffset: -4, instructionCount: 9 });
      const rows = dis.body.instructions;
      assert.strictEqual(rows.length, 9);
      const at = rows.findIndex((r) => parseInt(r.address, 16) === parseInt(pc, 16));
      assert.strictEqual(at, 4, JSON.stringify(rows));
      assert.strictEqual(rows[at].instruction.split(/\s/)[0].toLowerCase().replace(/\.[nw]$/, ''), rig.objdumpMnemonic(parseInt(pc, 16)));
      assert.strictEqual(rows[at].line, rig.markerLine('call-area'));
      const addr = rig.nm('g_counter');
      const mem = await dc.send('readMemory', { memoryReference: `0x${addr.toString(16)}`, count: 4 });
      const word = Buffer.from(mem.body.data, 'base64').readUInt32LE(0);
      assert.match(await repl(`Target.ReadU32(0x${addr.toString(16)})`), new RegExp(`^${word} `));
      await dc.send('writeMemory', { memoryReference: `0x${addr.toString(16)}`, data: Buffer.from([0x78, 0x56, 0x34, 0x12]).toString('base64') });
      assert.match(await repl(`Target.ReadU32(0x${addr.toString(16)})`), /^305419896 /);
    });

    it('stops at function breakpoints by hit count and at instruction breakpoints; log points print and go on', async () => {
      await launchToMain([{ line: rig.markerLine('loop-top'), logMessage: 'passing the loop top' }]);
      let logs = 0;
      dc.on('output', (e) => { if (e.body.output.includes('passing the loop top')) ++logs; });
      const fn = await dc.setFunctionBreakpointsRequest({ breakpoints: [{ name: 'Area', hitCondition: '2' }] });
      assert.deepStrictEqual(fn.body.breakpoints.map((b) => b.verified), [true]);
      assert.strictEqual((await resumeTo((a) => dc.continueRequest(a))).body.reason, 'breakpoint');
      assert.strictEqual((await topFrame()).name, 'Area');
      assert.strictEqual(parseInt((await dc.evaluateRequest({ expression: 'g_counter', context: 'watch' })).body.result), 2);
      assert.strictEqual(logs, 2);
      await dc.setFunctionBreakpointsRequest({ breakpoints: [] });
      const ref = `0x${rig.nm('FillWide').toString(16)}`;
      const ins = await dc.send('setInstructionBreakpoints', { breakpoints: [{ instructionReference: ref }] });
      assert.deepStrictEqual(ins.body.breakpoints.map((b) => b.verified), [true]);
      await resumeTo((a) => dc.continueRequest(a));
      const f = await topFrame();
      assert.strictEqual(f.name, 'FillWide');
      assert.strictEqual(parseInt(f.instructionPointerReference, 16), rig.nm('FillWide'));
      assert.strictEqual(logs, 3);
    });

    it('pauses a running target and restarts at main', async () => {
      await launchToMain();
      await dc.continueRequest({ threadId: 1 });
      const busy = await dc.stackTraceRequest({ threadId: 1 }).catch((e) => e);
      assert.match(String(busy.message), /program is running/);
      assert.strictEqual((await resumeTo((a) => dc.pauseRequest(a))).body.reason, 'pause');
      const stopped = dc.waitForEvent('stopped');
      await dc.send('restart', {});
      assert.strictEqual((await stopped).body.reason, 'entry');
      assert.strictEqual((await topFrame()).name, 'main');
    });

    it('attaches to a running target and halts it', async () => {
      // A fresh target: QEMU runs the program it loaded itself; the
      // simulator's core runs what its empty memory holds.
      backend.stop();
      host = await backend.start(true);
      await dc.stop();
      dc = new DebugClient(rig.TAVIT, '-dap', 'tavit', { env: process.env });
      await dc.start();
      const stopped = dc.waitForEvent('stopped');
      await dc.initializeRequest();
      const initialized = dc.waitForEvent('initialized');
      await dc.attachRequest(rig.launchArgs(backend, host));
      await initialized;
      await dc.configurationDoneRequest();
      assert.strictEqual((await stopped).body.reason, 'entry');
      const f = await topFrame();
      if (backend.needsQemu) assert.ok(['main', 'Area', 'FillWide'].includes(f.name), f.name);
      else assert.match(f.instructionPointerReference, /^0x[0-9a-f]{8}$/);
    });

    it('answers errors with the console texts and terminates', async () => {
      await launchToMain();
      const unknown = await dc.evaluateRequest({ expression: 'Foo.Bar()', context: 'repl' }).catch((e) => e);
      assert.match(String(unknown.message), /Foo\.Bar\(\): unknown command/);
      const bad = await dc.send('noSuchRequest', {}).catch((e) => e);
      assert.match(String(bad.message), /unknown command: noSuchRequest/);
      // Arguments of the wrong kind fail with a text; the adapter goes on.
      for (const [cmd, args] of [['readMemory', { memoryReference: 'zz', count: 4 }], ['readMemory', { memoryReference: '0x0', count: -1 }],
        ['disassemble', { memoryReference: '0x0', instructionCount: 0 }], ['variables', { variablesReference: 999 }],
        ['scopes', { frameId: 77 }], ['setVariable', { variablesReference: 5, name: 'x', value: 'y' }],
        ['writeMemory', { memoryReference: '0xfffffffe', data: 'AAAAAA==' }], ['launch', {}], ['configurationDone', {}]]) {
        const r = await dc.send(cmd, args).catch((e) => e);
        assert.ok(r instanceof Error && r.message.length > 0, `${cmd} ${JSON.stringify(args)}`);
      }
      const ins = await dc.send('setInstructionBreakpoints', { breakpoints: [{ instructionReference: 'nope' }] });
      assert.deepStrictEqual(ins.body.breakpoints.map((b) => b.verified), [false]);
      assert.strictEqual((await dc.threadsRequest()).body.threads.length, 1);
      const terminated = dc.waitForEvent('terminated');
      await dc.terminateRequest({});
      await terminated;
      const after = await dc.stackTraceRequest({ threadId: 1 }).catch((e) => e);
      assert.match(String(after.message), /not connected/);
      const step = await dc.nextRequest({ threadId: 1 }).catch((e) => e);
      assert.match(String(step.message), /^Debug\.StepOver ?\(\): not connected$/);
    });
  });
}

describe('tavit -dapport', function () {
  this.timeout(60000);
  it('serves one client on a loopback port and ends when it disconnects', async () => {
    // Another test may take the free port first: then the next one.
    let proc, port, exited;
    for (let attempt = 0; attempt < 5 && !proc; ++attempt) {
      port = await rig.freePort();
      const p = cp.spawn(rig.TAVIT, ['-dapport', String(port)], { stdio: ['ignore', 'ignore', 'pipe'] });
      const ended = new Promise((resolve) => p.on('exit', (code) => resolve(code)));
      let err = '';
      const listening = await Promise.race([ended.then(() => false),
        new Promise((resolve) => p.stderr.on('data', (d) => { err += String(d); if (err.includes('listening on')) resolve(true); }))]);
      if (listening) [proc, exited] = [p, ended];
    }
    assert.ok(proc, 'no port to listen on');
    const dc = new DebugClient('', '', 'tavit');
    await dc.start(port);
    const init = await dc.initializeRequest();
    assert.strictEqual(init.body.supportsConfigurationDoneRequest, true);
    await dc.disconnectRequest({});
    assert.strictEqual(await exited, 0);
    const bad = cp.spawnSync(rig.TAVIT, ['-dapport', 'x'], { encoding: 'utf8', timeout: 20000 });
    assert.strictEqual(bad.status, 2);
    assert.match(bad.stderr, /-dapport needs a port number/);
  });
});
