#!/usr/bin/env node
// A small remote control client: discovers a device, logs in, reads, writes, watches, logs out. When the device no longer
// answers while it watches, it gets its session back.
//
//     node client.js [--address ADDRESS] [--user NAME] [--password TEXT] [--seconds N] [--timeout N]

import { constants, generateKeyPairSync, privateDecrypt } from "node:crypto";
import { createSocket } from "node:dgram";
import { once } from "node:events";
import { hostname } from "node:os";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath } from "node:url";
import { parseArgs } from "node:util";

import protobuf from "protobufjs";
import { Request, Subscriber } from "zeromq";

const DISCOVERY_PORT = 8004;
const DISCOVERY_TIMEOUT_MS = 5000;
const LOGIN_PORT_ON_LOOPBACK = 60000; // a device that listens on 127.0.0.1 only publishes port 0
const SEPARATOR = "\x1c";
const [LOGIN_PORT, WRAPPED_KEY, SERIAL, PROJECT] = [3, 5, 10, 12]; // of the 14 fields, counted from 0

const SERIAL_KEY = "/Device/Config/Hardware/Model/Serial";
const PROJECT_KEY = "/Device/Config/PROJECT_INFO";
const THIS_KEY_ALONE = 0x2000;
const ANSWER_TIMEOUT_S = 70; // a multi-write may take 65 s, and others' requests are served first
const SIGN_OF_LIFE_MS = 2000;
const PAUSE_MS = 1000; // between two attempts to get a session back

const contract = protobuf.loadSync(fileURLToPath(new URL("../../proto/access.proto", import.meta.url)));
const Message = contract.lookupType("kesto.access.v1.Message");
const Status = contract.lookupEnum("kesto.access.v1.Status");

// Node refuses to remove PKCS #1 v1.5 padding by itself: whoever can have many texts unwrapped and sees which of them
// fail learns the secret. Here nobody can, since the pair is used once.
function unwrap(privateKey, wrapped) {
  const padded = privateDecrypt({ key: privateKey, padding: constants.RSA_NO_PADDING }, wrapped);
  const secretStart = padded.indexOf(0, 2) + 1; // 00 02, random bytes without a 00, 00, the secret
  if (padded[0] !== 0 || padded[1] !== 2 || secretStart === 0) throw new Error("the shared key cannot be unwrapped");
  return padded.subarray(secretStart).toString();
}

// The device's address, the fields of its reply, and the shared key.
async function discover(address, clientId) {
  const { publicKey, privateKey } = generateKeyPairSync("rsa", { modulusLength: 2048 });
  const pem = publicKey.export({ type: "spki", format: "pem" });
  const udp = createSocket("udp4");
  try {
    udp.bind();
    await once(udp, "listening");
    udp.setBroadcast(true);
    udp.send("@?" + ["example", "node", pem, clientId].join(SEPARATOR) + "!", DISCOVERY_PORT, address);
    const timeout = AbortSignal.timeout(DISCOVERY_TIMEOUT_MS);
    const [datagram, sender] = await once(udp, "message", { signal: timeout }).catch(() => {
      throw new Error(`no device answers at ${address}`);
    });
    const reply = datagram.toString();
    const fields = reply.replace(/^@\?D/, "").split(SEPARATOR);
    if (fields.length <= PROJECT) throw new Error(`a reply of ${fields.length} fields`);
    // A client wrote the project information, and maybe separators with it; the reply is cut when it is too long.
    const end = fields.splice(PROJECT);
    fields.push(...(reply.endsWith("!") ? [end.slice(0, -1).join(SEPARATOR), end.at(-1).slice(0, -1)] : ["", ""]));
    const sharedKey = unwrap(privateKey, Buffer.from(fields[WRAPPED_KEY], "hex"));
    return { device: sender.address, fields, sharedKey };
  } finally {
    udp.close();
  }
}

// One session after the other. A request socket that got no answer is of no use any more: the session has to be
// recovered.
class Client {
  constructor(device, loginPort, clientId, login, timeoutMs) {
    Object.assign(this, { device, loginPort, clientId, login, timeoutMs, sequence: 0 });
  }

  #connect(socket, port) {
    socket.linger = 0;
    socket.connect(`tcp://${this.device}:${port}`);
    return socket;
  }

  #connectForRequests(port) {
    return this.#connect(new Request({ receiveTimeout: this.timeoutMs }), port);
  }

  async #ask(socket, operation) {
    const [name] = Object.keys(operation);
    const request = { clientId: this.clientId, sequence: ++this.sequence, ...operation };
    await socket.send(Message.encode(Message.fromObject({ request })).finish());
    const [frame] = await socket.receive().catch(() => {
      throw new Error(`${name} was not answered`);
    });
    const reply = Message.decode(frame).reply; // none in an empty frame
    const status = Status.valuesById[reply?.status ?? 0];
    if (status !== "STATUS_OK") throw new Error(`${name} was answered ${status}`);
    return reply;
  }

  async #askLoginPort(login) {
    const socket = this.#connectForRequests(this.loginPort);
    try {
      return await this.#ask(socket, { login });
    } finally {
      socket.close();
    }
  }

  async logIn() {
    const { session } = await this.#askLoginPort({ ...this.login, monitor: 1, discardMyFeedback: 1 });
    this.commands = this.#connectForRequests(session.commandPort);
    this.events = this.#connect(new Subscriber(), session.eventPort);
    this.events.subscribe();
    return session;
  }

  logOut() {
    return this.#askLoginPort({});
  }

  close() {
    for (const socket of [this.commands, this.events]) socket?.close();
  }

  // A new session, on other ports. What was read before may have changed meanwhile: read it again.
  async recover() {
    this.close();
    for (;;) {
      try {
        await this.logOut(); // or a session that is about to end may be given once more
        return await this.logIn();
      } catch {
        await sleep(PAUSE_MS);
      }
    }
  }

  async read(key) {
    const { value } = await this.#ask(this.commands, { read: { key, flags: THIS_KEY_ALONE } });
    return value.text;
  }

  write(key, value) {
    return this.#ask(this.commands, { write: { key, value } });
  }

  async #askForSignsOfLife(signal) {
    for (;;) {
      await sleep(SIGN_OF_LIFE_MS, undefined, { signal });
      await this.#ask(this.commands, { changeCount: {} });
    }
  }

  // What the device and the other clients change: events, and the replies to others' writes. Ends with an error when the
  // device does not answer any more.
  async *watch(milliseconds) {
    const over = new AbortController();
    const timer = setTimeout(() => over.abort(), milliseconds);
    const end = this.#askForSignsOfLife(over.signal).catch((error) => {
      this.events.close();
      if (!over.signal.aborted) throw error;
    });
    for await (const [frame] of this.events) yield Message.decode(frame);
    clearTimeout(timer);
    await end;
  }
}

async function* watchAndRecover(client, end) {
  for (;;) {
    try {
      yield* client.watch(Math.max(0, end - Date.now()));
      return;
    } catch (error) {
      console.log(`connection lost: ${error.message}`);
      const session = await client.recover();
      console.log(`recovered: command port ${session.commandPort}, event port ${session.eventPort}`);
      console.log(`read ${PROJECT_KEY} = ${await client.read(PROJECT_KEY)}`);
    }
  }
}

async function visit(options) {
  const clientId = `node-example-${hostname()}`;
  const { device, fields, sharedKey } = await discover(options.address, clientId);
  const loginPort = Number(fields[LOGIN_PORT].replace("ZMQ:", "")) || LOGIN_PORT_ON_LOOPBACK;
  console.log(`discovered ${fields[0]}, serial ${fields[SERIAL]}, at ${device}:${loginPort}; shared key ${sharedKey}`);

  const login = { userName: options.user, password: options.password };
  const client = new Client(device, loginPort, clientId, login, Number(options.timeout) * 1000);
  const session = await client.logIn();
  try {
    console.log(`logged in: command port ${session.commandPort}, event port ${session.eventPort}`);
    console.log(`read ${SERIAL_KEY} = ${await client.read(SERIAL_KEY)}`);
    const before = await client.read(PROJECT_KEY);
    await client.write(PROJECT_KEY, "written by the Node example");
    console.log(`wrote ${PROJECT_KEY} = ${await client.read(PROJECT_KEY)}`);
    await client.write(PROJECT_KEY, before);
    for await (const message of watchAndRecover(client, Date.now() + Number(options.seconds) * 1000)) {
      console.log("heard", JSON.stringify(message));
    }
  } finally {
    await client.logOut();
    client.close();
  }
  console.log("logged out");
}

try {
  const { values: options } = parseArgs({
    options: {
      address: { type: "string", default: "255.255.255.255" },
      user: { type: "string", default: "quillmont" },
      password: { type: "string", default: "tandrivel" },
      seconds: { type: "string", default: "5" },
      timeout: { type: "string", default: String(ANSWER_TIMEOUT_S) },
    },
  });
  await visit(options);
} catch (error) {
  console.error(`client.js: ${error.message}`);
  process.exitCode = 1;
}
