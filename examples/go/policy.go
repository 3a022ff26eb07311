// Sets the policy from the file that the command line names, if it names one. Then prints the hash
// of the policy in force, now and after each change, even if the service or the bus restarts.
// Needs the module github.com/godbus/dbus/v5, which Debian has as golang-dbus-dev.
package main

import (
	"errors"
	"fmt"
	"os"
	"time"

	"github.com/godbus/dbus/v5"
)

const name, policy1 = "com.norvane.qor.IControl", "com.norvane.qor.Policy1"

var files = os.Args[1:]

func follow(bus *dbus.Conn) error {
	signals := make(chan *dbus.Signal, 10)
	bus.Signal(signals)
	err := bus.AddMatchSignal(dbus.WithMatchSender(name), dbus.WithMatchInterface(policy1))
	service := bus.Object(name, "/com/norvane/qor/CommunicationChannel")
	if err == nil && len(files) > 0 {
		var text []byte
		text, err = os.ReadFile(files[0])
		files = nil
		if err == nil {
			options := map[string]dbus.Variant{}
			err = service.Call(policy1+".SetPolicy", 0, string(text), options).Err
		}
	}
	if err != nil {
		return err
	}
	sha256, err := service.GetProperty(policy1 + ".PolicySha256")
	if err != nil {
		return err
	}
	fmt.Println("in force:", sha256.Value())
	for signal := range signals {
		if signal.Name == policy1+".PolicyChanged" {
			fmt.Println("in force:", signal.Body[0])
		}
	}
	return errors.New("the bus has gone")
}

func main() {
	for ; ; time.Sleep(time.Second) {
		bus, err := dbus.ConnectSystemBus()
		if err == nil {
			err = follow(bus)
			bus.Close()
		}
		var refusal dbus.Error
		if errors.As(err, &refusal) {
			fmt.Print(refusal.Name, ": ")
		}
		fmt.Println(err)
	}
}
